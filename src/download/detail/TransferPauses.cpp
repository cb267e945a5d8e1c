#include "download/detail/TransferPauses.h"

#include <algorithm>
#include <utility>

#include "platform/Log.h"

namespace tarn {
namespace {

bool isUnderWay(const DownloadTask::Snapshot& fields) {
  return fields.status == DownloadStatus::queued || fields.status == DownloadStatus::downloading;
}

/// On stable storage before what it tells. Throws PosixError.
void notePause(DownloadStarter::NotedTransfer& noted, bool isPaused) {
  noted.note.isPaused = isPaused;
  noted.transfer->setTaskDescription(noted.note.text());
}

}  // namespace

std::map<int64_t, TransferState> TransferPauses::states() {
  std::map<int64_t, TransferState> states;
  for (const auto& noted : starter_.transfers()) {
    const auto task = engine_.registry.find(noted.note.id);
    if (!task || !isUnderWay(task->snapshot())) continue;
    TransferState state = noted.transfer->transferState();
    state.isPaused = task->isPaused();
    states.insert_or_assign(task->id, std::move(state));
  }
  return states;
}

std::optional<DownloadStarter::NotedTransfer> TransferPauses::transferOf(int64_t id) {
  auto transfers = starter_.transfers();
  const auto found = std::ranges::find_if(transfers, [id](const auto& noted) { return noted.note.id == id; });
  if (found == transfers.end()) return std::nullopt;
  return std::move(*found);
}

bool TransferPauses::pause(int64_t id) {
  std::lock_guard guard(mutex_);
  const auto task = engine_.registry.find(id);
  auto noted = transferOf(id);
  if (!task || !noted || !isUnderWay(task->snapshot())) return false;
  if (task->isPaused()) return true;
  notePause(*noted, true);
  task->update([&](DownloadTask::Snapshot& fields) {
    fields.isPaused = true;
    fields.downloadTask = noted->transfer;
  });
  if (const auto waiting = engine_.queue.remove(id)) engine_.registry.setDelegate(id, waiting->delegate);
  noted->transfer->suspend();
  if (noted->transfer->state() != NSURLSessionTaskState::suspended) {  // its end has come first
    task->update([](DownloadTask::Snapshot& fields) { fields.isPaused = false; });
    notePause(*noted, false);
    return false;
  }
  log("Download {} is paused", id);
  engine_.taskStore.persist();
  starter_.releaseSlot(id);
  return true;
}

bool TransferPauses::resume(int64_t id) {
  std::lock_guard guard(mutex_);
  const auto task = engine_.registry.find(id);
  auto noted = transferOf(id);
  if (!task || !noted || !task->isPaused() || !isUnderWay(task->snapshot())) return false;
  notePause(*noted, false);
  task->update([&](DownloadTask::Snapshot& fields) {
    if (fields.isEnded()) return;  // just now
    fields.isPaused = false;
    fields.status = DownloadStatus::queued;
    fields.downloadTask = noted->transfer;
  });
  log("Download {} goes on", id);
  starter_.startOrQueue({.task = task, .delegate = engine_.registry.delegate(id)});
  return true;
}

}  // namespace tarn
