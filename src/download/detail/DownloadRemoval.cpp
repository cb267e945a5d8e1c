#include "download/detail/DownloadRemoval.h"

#include <chrono>

#include "platform/Log.h"

namespace tarn {
namespace {

constexpr std::chrono::milliseconds cancelAllCooldown{500};
constexpr std::chrono::seconds maxAge{86400};

/// False for a download that has ended, and whose end was told.
bool isUnderWay(const DownloadTask& task) {
  const DownloadStatus status = task.status();
  return isActive(status) || status == DownloadStatus::paused || status == DownloadStatus::unknown;
}

}  // namespace

DownloadRemoval::DownloadRemoval(EngineState& engine, DownloadStarter& starter)
    : engine_(engine),
      starter_(starter),
      downloadsQueue_(engine.platform.dispatch.makeSerialQueue("com.tarn.downloadsQueue", false)) {}

void DownloadRemoval::cancel(int64_t id) {
  const auto task = engine_.registry.find(id);
  if (!task) return;
  if (isUnderWay(*task)) tellCancelled(id);
  engine_.queue.remove(id);
  task->cancel();
  starter_.cancelTransfer(id);
  const auto taken = engine_.gate.cancel(id);
  if (taken.activeRun) log("Cancelling active processing for download {}", id);
  if (taken.waiting != 0) log("Removed download {} from processing queue", id);
  deleteFiles(taken);
  engine_.registry.removeDelegate(id);
  remove(id);
  if (engine_.queue.releaseSlot(id)) starter_.startNext();
}

void DownloadRemoval::tellCancelled(int64_t id) {
  engine_.news.ended({.id = id, .kind = RunOutcome::Kind::cancelled});
}

void DownloadRemoval::deleteFiles(const ProcessingGate::TakenAway& taken) {
  for (const ProcessingState& record : taken.files) engine_.sweep.deleteFilesOf(record);
}

void DownloadRemoval::cancelAll() {
  isBlockingNewDownloads_ = true;
  logLine("cancelAll called - blocking new downloads for 0.5s");
  engine_.queue.clear();
  const auto taken = engine_.gate.cancelAll();
  if (taken.activeRun) logLine("Cancelling active processing in cancelAll()");
  if (taken.waiting != 0) log("Cleared {} items from processing queue", taken.waiting);
  deleteFiles(taken);
  wipeLater();
  engine_.posts.postToMainAfter(cancelAllCooldown, [this] {
    logLine("cancelAll cooldown complete - resuming new downloads");
    isBlockingNewDownloads_ = false;
  });
}

void DownloadRemoval::clearAll() {
  logLine("clearAllStates called - resuming new downloads");
  isBlockingNewDownloads_ = false;
  engine_.queue.clear();
  deleteFiles(engine_.gate.clear());
  wipeLater();
}

/// Removes, later, the tasks that exist now: not a download that is started after the call. The page is told of none of
/// them any more.
void DownloadRemoval::wipeLater() {
  const auto tasks = engine_.registry.all();
  for (const auto& task : tasks) {
    task->claimNotification();
    if (isUnderWay(*task)) tellCancelled(task->id);
  }
  engine_.posts.post(*downloadsQueue_, [this, tasks] { wipe(tasks); });
}

void DownloadRemoval::wipe(const std::vector<DownloadTaskPointer>& tasks) {
  for (const auto& task : tasks) {
    task->cleanup();
    starter_.cancelTransfer(task->id);
    // A transfer may have brought its file, and a record with it, since the call.
    deleteFiles(engine_.gate.cancel(task->id));
    engine_.registry.remove(task->id);
    // A download that was just beginning may have taken a slot or a place in the line.
    engine_.queue.remove(task->id);
    starter_.releaseSlot(task->id);
  }
  if (engine_.registry.all().empty()) {
    engine_.taskStore.clear();
  } else {
    engine_.taskStore.persist();
  }
  engine_.sweep.cleanupOrphanedFiles();
}

void DownloadRemoval::remove(int64_t id) {
  engine_.posts.post(*downloadsQueue_, [this, id] { removeNow(id); });
}

void DownloadRemoval::removeNow(int64_t id) {
  const auto task = engine_.registry.remove(id);
  if (!task) {
    log("Attempted to remove non-existent download with key {}.", id);
    return;
  }
  task->cleanup();
  engine_.taskStore.persist();
  log("Removed and cleaned up download with key {}. Downloads left: {}", id, engine_.registry.all().size());
}

void DownloadRemoval::cleanUp() {
  engine_.posts.post(*downloadsQueue_, [this] { cleanUpNow(); });
}

void DownloadRemoval::cleanUpNow() {
  const int64_t cutOff = secondsSince1970(engine_.platform.clock.now() - maxAge);
  for (const auto& task : engine_.registry.all()) {
    if (task->status() != DownloadStatus::completed || task->id >= cutOff) continue;
    task->cleanup();
    engine_.registry.remove(task->id);
    log("Cleaned up old completed download: {}", task->id);
  }
  engine_.taskStore.persist();
  engine_.sweep.cleanupOrphanedFiles();
  giveUp(engine_.gate.cleanupStaleStates(maxAge), "It was interrupted, and not taken up for a day");
  giveUp(engine_.gate.validateStates(), "Its file is gone");
}

/// Ends downloads whose records were removed while nobody worked on them.
void DownloadRemoval::giveUp(const std::vector<int64_t>& ids, const std::string& words) {
  for (const int64_t id : ids) {
    const auto task = engine_.registry.find(id);
    if (!task) continue;
    log("Processing failed for download {}: {}", id, words);
    engine_.news.fail(task, RunOutcome::Where::repair, std::make_exception_ptr(Error("TarnFetch", -1, words)));
    engine_.taskStore.persist();
    starter_.releaseSlot(id);
    engine_.news.tellFailed(task);
  }
}

}  // namespace tarn
