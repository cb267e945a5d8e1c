#include "download/DownloadManager.h"

#include <algorithm>

#include "download/TransferNote.h"
#include "platform/Log.h"
#include "platform/URL.h"

namespace tarn {
namespace {

constexpr std::chrono::milliseconds cancelAllCooldown{500};
constexpr std::chrono::seconds maxAge{86400};

bool isActive(DownloadStatus status) {
  return status == DownloadStatus::queued || status == DownloadStatus::downloading ||
         status == DownloadStatus::processing;
}

}  // namespace

std::shared_ptr<DownloadManager> DownloadManager::create(const Platform& platform, const ProcessingSteps& steps,
                                                         const std::weak_ptr<DownloadManagerDelegate>& delegate,
                                                         OutcomeSink outcomes) {
  // NOLINTNEXTLINE: the constructor is private
  std::shared_ptr<DownloadManager> manager(new DownloadManager(platform, steps, std::move(outcomes)));
  std::weak_ptr<DownloadManager> weak = manager;
  manager->backgroundTime_ = std::make_shared<BackgroundTime>(platform.application, [weak] {
    if (auto self = weak.lock()) self->handleBackgroundExpiration();
  });
  manager->loadPersistedDownloads(delegate);
  return manager;
}

DownloadManager::DownloadManager(const Platform& platform, const ProcessingSteps& steps, OutcomeSink outcomes)
    : platform_(platform),
      outcomes_(outcomes ? std::move(outcomes) : [](const RunOutcome&) {}),
      taskStore_(platform.defaults, registry_),
      queue_(platform.defaults),
      store_(platform.defaults, platform.files, platform.clock),
      gate_(store_),
      sweep_(platform.files, registry_, store_, gate_, names_),
      driver_(platform.files, platform.clock, store_, names_, *this, steps, RunFiles::layered),
      downloadsQueue_(platform.dispatch.makeSerialQueue("com.tarn.downloadsQueue", false)),
      processingWorker_(platform.dispatch.makeSerialQueue("com.tarn.processing", true)) {}

DownloadManager::~DownloadManager() = default;

std::set<int64_t> DownloadManager::idsOfStoredTransfers() {
  std::set<int64_t> ids;
  try {
    for (const std::string& text : platform_.transfers.storedTaskDescriptions()) {
      if (auto note = TransferNote::parse(text)) ids.insert(note->id);
    }
  } catch (const Error& error) {
    log("Stored transfers cannot be read: {}", error.description());
  }
  return ids;
}

void DownloadManager::loadPersistedDownloads(const std::weak_ptr<DownloadManagerDelegate>& delegate) {
  for (const DownloadTaskData& data : taskStore_.load()) {
    auto task = std::make_shared<DownloadTask>(platform_.files, data.id, data.url, data.album, data.filename);
    const DownloadStatus status = downloadStatus(data.status);
    task->update([&](DownloadTask::Snapshot& fields) { fields.status = status; });
    registry_.insert(task);
    if (isActive(status)) registry_.setDelegate(task->id, delegate);
  }
  if (!idsOfStoredTransfers().empty()) takeUpStoredTransfers();
  for (const auto& task : registry_.all()) {
    if (task->status() == DownloadStatus::queued) queue_.append({.url = task->url, .task = task, .delegate = delegate});
  }
  startNextQueuedDownloads();
}

/// What an earlier process has begun goes on; what it had only stored, for a download that was waiting, waits on.
void DownloadManager::takeUpStoredTransfers() {
  std::lock_guard guard(sessionMutex_);
  makeSession();
  for (const auto& transfer : session_->allTasks()) {
    const auto note = TransferNote::parse(transfer->taskDescription());
    if (!note) continue;
    const bool isWaiting = transfer->state() == NSURLSessionTaskState::suspended;
    const auto task = registry_.find(note->id);
    if (isWaiting) registry_.mapTransfer(transfer->taskIdentifier(), note->id);
    if (task) {
      task->update([&](DownloadTask::Snapshot& fields) {
        const bool isUnderWay = fields.status == DownloadStatus::queued || fields.status == DownloadStatus::downloading;
        if (!isUnderWay) return;
        fields.status = isWaiting ? DownloadStatus::queued : DownloadStatus::downloading;
        fields.skipVideoFix = note->skipVideoFix;
        fields.skipAudioFix = note->skipAudioFix;
        if (isWaiting) fields.downloadTask = transfer;
      });
    }
    if (isWaiting && !task) {
      // A kill came before anybody was told of this download. Its transfer's end comes later, and must meet no other.
      {
        std::lock_guard ids(idMutex_);
        issuedIds_.insert(note->id);
      }
      transfer->cancel();
    }
  }
}

int64_t DownloadManager::makeId(std::optional<int64_t> wanted) {
  std::lock_guard guard(idMutex_);
  if (wanted && *wanted > 0 && !issuedIds_.contains(*wanted) && !isIdTaken(*wanted)) return *wanted;
  int64_t id = secondsSince1970(platform_.clock.now());
  issuedIds_.erase(issuedIds_.begin(), issuedIds_.lower_bound(id));
  while (issuedIds_.contains(id) || isIdTaken(id)) ++id;
  issuedIds_.insert(id);
  return id;
}

bool DownloadManager::isIdTaken(int64_t id) {
  if (registry_.contains(id) || gate_.holds(id) || store_.loadState(id)) return true;
  return idsOfStoredTransfers().contains(id);
}

void DownloadManager::makeSession() {
  if (session_) return;
  std::string identifier = platform_.application.bundleIdentifier() + ".downloads";
  session_ = platform_.transfers.makeBackgroundSession(identifier, weak_from_this());
}

NSURLSession& DownloadManager::session() {
  std::lock_guard guard(sessionMutex_);
  makeSession();
  return *session_;
}

void DownloadManager::handleEventsForBackgroundURLSession() {
  session();
}

DownloadTaskPointer DownloadManager::startDownloadFileBy(const std::string& url,
                                                         const std::optional<std::string>& album,
                                                         const std::optional<std::string>& filename, bool skipVideoFix,
                                                         bool skipAudioFix, const DelegatePointer& delegate,
                                                         std::optional<int64_t> wantedId) {
  if (isBlockingNewDownloads_) {
    log("startDownloadFileBy blocked - call clearAllStates() to resume. Rejecting: {}", filename.value_or(""));
    return nullptr;
  }
  if (!URL::parse(url)) return nullptr;
  log("starting download {}", url);
  const int64_t id = makeId(wantedId);
  auto task = std::make_shared<DownloadTask>(platform_.files, id, url, album, filename);
  task->update([&](DownloadTask::Snapshot& fields) {
    fields.skipVideoFix = skipVideoFix;
    fields.skipAudioFix = skipAudioFix;
    // Waiting, until it has a slot and a transfer: the list may be stored at any moment, and a task that is stored as
    // waiting is started again.
    fields.status = DownloadStatus::queued;
  });
  log("task id {}, skipVideoFix: {}, skipAudioFix: {}", id, skipVideoFix, skipAudioFix);
  PendingDownload download{.url = url, .task = task, .delegate = delegate};
  registry_.insert(task);
  storeAhead(download);
  DownloadQueue::Admission admission = queue_.admit(download);
  const auto& counts = admission.counts;
  if (!admission.hasSlot) {
    log("Download queued: {} (queue size: {}, running: {}/{})", id, counts.queued, counts.running, counts.limit);
  } else if (startTransfer(download)) {
    log("Download started immediately: {} (running: {}/{})", id, counts.running, counts.limit);
  } else {
    startNextQueuedDownloads();
  }
  taskStore_.persist();
  return task;
}

/// Throws Error.
DownloadTask::Transfer DownloadManager::makeTransfer(const PendingDownload& download) {
  const auto fields = download.task->snapshot();
  const TransferNote note{
      .id = download.task->id, .skipVideoFix = fields.skipVideoFix, .skipAudioFix = fields.skipAudioFix};
  auto transfer = session().downloadTask(download.url, note.text());
  registry_.mapTransfer(transfer->taskIdentifier(), download.task->id);
  return transfer;
}

/// A download gets its transfer before it may have to wait, suspended, so that its flags come back with that after a
/// kill. One that gets none now gets another chance when it is started.
void DownloadManager::storeAhead(const PendingDownload& download) {
  try {
    auto transfer = makeTransfer(download);
    download.task->update([&](DownloadTask::Snapshot& fields) { fields.downloadTask = std::move(transfer); });
  } catch (const Error& error) {
    log("Transfer of download {} could not be stored yet: {}", download.task->id, error.description());
  }
}

bool DownloadManager::startTransfer(const PendingDownload& download) {
  const DownloadTaskPointer& task = download.task;
  if (!download.delegate.expired()) registry_.setDelegate(task->id, download.delegate);
  try {
    DownloadTask::Transfer transfer = task->snapshot().downloadTask;
    if (!transfer) transfer = makeTransfer(download);
    // The status is set first: a short transfer may be over before resume() returns.
    task->update([&](DownloadTask::Snapshot& current) {
      if (current.isEnded()) return;
      current.downloadTask = transfer;
      current.status = DownloadStatus::downloading;
    });
    transfer->resume();
    if (!task->isEnded()) return true;
    // Cancelled meanwhile, at a moment when there was no running transfer to stop.
    transfer->cancel();
  } catch (const Error& error) {
    log("Download could not be started {} {}", task->id, error.description());
    fail(task, RunOutcome::Where::start, std::current_exception());
    notifyFailed(task);
  }
  queue_.releaseSlot(task->id);
  return false;
}

void DownloadManager::startNextQueuedDownloads() {
  while (!isStopped_) {
    auto started = queue_.takeNext();
    if (!started) return;
    executeDownload(*started);
  }
}

void DownloadManager::executeDownload(const DownloadQueue::Started& started) {
  const PendingDownload& download = started.download;
  if (!URL::parse(download.url)) {
    log("Invalid URL for queued download: {}", download.url);
    queue_.releaseSlot(download.task->id);
    return;
  }
  if (!startTransfer(download)) return;
  log("Started queued download: {} (running: {}/{})", download.task->id, started.counts.running, started.counts.limit);
  taskStore_.persist();
}

void DownloadManager::releaseSlot(int64_t id) {
  queue_.releaseSlot(id);
  startNextQueuedDownloads();
}

void DownloadManager::cancelTransfer(int64_t id) {
  std::lock_guard guard(sessionMutex_);
  if (!session_) return;
  for (const auto& transfer : session_->allTasks()) {
    auto note = TransferNote::parse(transfer->taskDescription());
    if (note && note->id == id) transfer->cancel();
  }
}

void DownloadManager::cancelDownloadFileBy(int64_t id) {
  auto task = registry_.find(id);
  if (!task) return;
  queue_.remove(id);
  task->cancel();
  cancelTransfer(id);
  const auto taken = gate_.cancel(id);
  if (taken.activeRun) log("Cancelling active processing for download {}", id);
  if (taken.waiting != 0) log("Removed download {} from processing queue", id);
  deleteFiles(taken);
  removeDelegate(id);
  removeDownload(id);
  if (queue_.releaseSlot(id)) startNextQueuedDownloads();
}

void DownloadManager::deleteFiles(const ProcessingGate::TakenAway& taken) {
  for (const ProcessingState& record : taken.files) sweep_.deleteFilesOf(record);
}

void DownloadManager::cancelAll() {
  isBlockingNewDownloads_ = true;
  logLine("cancelAll called - blocking new downloads for 0.5s");
  queue_.clear();
  const auto taken = gate_.cancelAll();
  if (taken.activeRun) logLine("Cancelling active processing in cancelAll()");
  if (taken.waiting != 0) log("Cleared {} items from processing queue", taken.waiting);
  deleteFiles(taken);
  postWipe();
  platform_.dispatch.mainQueue().asyncAfter(cancelAllCooldown, [weak = weak_from_this()] {
    auto self = weak.lock();
    if (!self) return;
    logLine("cancelAll cooldown complete - resuming new downloads");
    self->isBlockingNewDownloads_ = false;
  });
}

void DownloadManager::clearAllStates() {
  logLine("clearAllStates called - resuming new downloads");
  isBlockingNewDownloads_ = false;
  queue_.clear();
  deleteFiles(gate_.clear());
  postWipe();
}

/// Removes the tasks of this moment, later: a download that is started after the call is not meant. The page hears of
/// none of them any more.
void DownloadManager::postWipe() {
  const auto doomed = registry_.all();
  for (const auto& task : doomed) task->claimNotification();
  post(*downloadsQueue_, [tasks = doomed](DownloadManager& self) {
    for (const auto& task : tasks) {
      task->cleanup();
      self.cancelTransfer(task->id);
      // A transfer may have brought its file, and a record with it, since the call.
      self.deleteFiles(self.gate_.cancel(task->id));
      self.registry_.remove(task->id);
      // And a download that was just beginning may have taken a slot or a place in the line.
      self.queue_.remove(task->id);
      self.releaseSlot(task->id);
    }
    if (self.registry_.all().empty()) {
      self.taskStore_.clear();
    } else {
      self.taskStore_.persist();
    }
    self.sweep_.cleanupOrphanedFiles();
  });
}

void DownloadManager::removeDownload(int64_t key) {
  post(*downloadsQueue_, [key](DownloadManager& self) {
    auto task = self.registry_.remove(key);
    if (!task) {
      log("Attempted to remove non-existent download with key {}.", key);
      return;
    }
    task->cleanup();
    self.taskStore_.persist();
    log("Removed and cleaned up download with key {}. Downloads left: {}", key, self.registry_.all().size());
  });
}

void DownloadManager::removeDelegate(int64_t key) {
  registry_.removeDelegate(key);
}

std::vector<DownloadTaskPointer> DownloadManager::getDownloads() const {
  return registry_.all();
}

std::vector<DownloadTaskPointer> DownloadManager::getActiveDownloads() const {
  std::vector<DownloadTaskPointer> tasks = registry_.all();
  std::erase_if(tasks, [](const DownloadTaskPointer& task) { return !isActive(task->status()); });
  return tasks;
}

int64_t DownloadManager::getMaxConcurrentDownloads() {
  return queue_.limit();
}

void DownloadManager::setMaxConcurrentDownloads(int64_t limit) {
  try {
    log("Max concurrent downloads set to: {}", queue_.setLimit(limit));
  } catch (const Error& error) {
    log("Max concurrent downloads could not be stored: {}", error.description());
  }
  startNextQueuedDownloads();
}

size_t DownloadManager::getQueuedDownloadCount() const {
  return queue_.queuedCount();
}

void DownloadManager::performPeriodicCleanup() {
  post(*downloadsQueue_, [](DownloadManager& self) { self.cleanUpPeriodically(); });
}

void DownloadManager::cleanUpPeriodically() {
  const int64_t cutOff = secondsSince1970(platform_.clock.now() - maxAge);
  std::set<int64_t> inHand;
  for (const ProcessingState& state : gate_.runsInHand()) inHand.insert(state.downloadId);
  for (const auto& task : registry_.all()) {
    if (task->status() != DownloadStatus::completed || task->id >= cutOff) continue;
    task->cleanup();
    registry_.remove(task->id);
    log("Cleaned up old completed download: {}", task->id);
  }
  taskStore_.persist();
  sweep_.cleanupOrphanedFiles();
  giveUp(store_.cleanupStaleStates(maxAge, inHand), "It was interrupted, and not taken up for a day");
  giveUp(store_.validateStates(), "Its file is gone");
}

/// Ends downloads whose records were taken from them while nobody worked on them.
void DownloadManager::giveUp(const std::vector<int64_t>& ids, const std::string& words) {
  for (const int64_t id : ids) {
    const auto task = registry_.find(id);
    if (!task || gate_.holds(id)) continue;
    log("Processing failed for download {}: {}", id, words);
    fail(task, RunOutcome::Where::repair, std::make_exception_ptr(Error("TarnFetch", -1, words)));
    taskStore_.persist();
    releaseSlot(id);
    notifyFailed(task);
  }
}

void DownloadManager::stopStarting() {
  isStopped_ = true;
  gate_.close();
}

void DownloadManager::post(DispatchQueue& queue, std::function<void(DownloadManager&)> work) {
  queue.async([weak = weak_from_this(), work = std::move(work)] {
    if (auto self = weak.lock()) work(*self);
  });
}

}  // namespace tarn
