#include "download/detail/DownloadStarter.h"

#include <utility>

#include "platform/Log.h"
#include "platform/URL.h"

namespace tarn {

// --- After a restart ---

/// The requests that are noted with the stored transfers, by the ids of their downloads.
std::map<int64_t, DownloadRequest> DownloadStarter::storedRequests() {
  std::map<int64_t, DownloadRequest> requests;
  try {
    for (const std::string& text : engine_.platform.transfers.storedTaskDescriptions()) {
      if (auto note = NotedDownload::parse(text)) requests.insert_or_assign(note->id, std::move(note->request));
    }
  } catch (const Error& error) {
    log("Stored transfers cannot be read: {}", error.description());
  }
  return requests;
}

void DownloadStarter::load(const std::weak_ptr<DownloadManagerDelegate>& delegate) {
  const auto noted = storedRequests();
  for (const DownloadTaskData& data : engine_.taskStore.load()) {
    DownloadRequest request = data.request;
    if (const auto note = noted.find(data.id); note != noted.end()) request.takeFlagsOf(note->second);
    const auto task = std::make_shared<DownloadTask>(engine_.platform.files, data.id, std::move(request));
    const DownloadStatus status = downloadStatus(data.status);
    task->update([&](DownloadTask::Snapshot& fields) { fields.status = status; });
    engine_.registry.insert(task);
    if (isActive(status)) engine_.registry.setDelegate(task->id, delegate);
  }
  if (!noted.empty()) takeUpStoredTransfers();
  for (const auto& task : engine_.registry.all()) {
    const bool isWaiting = task->status() == DownloadStatus::queued && !task->isPaused();
    if (isWaiting) engine_.queue.append({.task = task, .delegate = delegate});
  }
  startNext();
}

void DownloadStarter::takeUpStoredTransfers() {
  session();
  for (const NotedTransfer& stored : transfers()) takeUp(stored);
}

/// A transfer that an earlier process has begun goes on. One that it had only stored, for a waiting download, keeps
/// waiting, and so does one that was paused.
void DownloadStarter::takeUp(const NotedTransfer& stored) {
  const DownloadTask::Transfer& transfer = stored.transfer;
  const int64_t id = stored.note.id;
  if (stored.note.isPaused) transfer->suspend();  // a kill may have come before that
  const bool isWaiting = transfer->state() == NSURLSessionTaskState::suspended;
  const bool isPaused = isWaiting && stored.note.isPaused;
  if (isWaiting) engine_.registry.mapTransfer(transfer->taskIdentifier(), id);
  const auto task = engine_.registry.find(id);
  if (task) {
    task->update([&](DownloadTask::Snapshot& fields) {
      const bool isUnderWay = fields.status == DownloadStatus::queued || fields.status == DownloadStatus::downloading;
      if (!isUnderWay) return;
      fields.isPaused = isPaused;
      if (!isPaused) fields.status = isWaiting ? DownloadStatus::queued : DownloadStatus::downloading;
      if (isWaiting) fields.downloadTask = transfer;
    });
  } else if (isWaiting) {
    // A kill came before anybody was told of this download. Its transfer's end comes later, and must meet no other.
    {
      std::lock_guard ids(idMutex_);
      issuedIds_.insert(id);
    }
    transfer->cancel();
  }
}

// --- Ids and the session ---

int64_t DownloadStarter::makeId(std::optional<int64_t> wanted) {
  std::lock_guard guard(idMutex_);
  if (wanted && *wanted > 0 && !issuedIds_.contains(*wanted) && !isIdTaken(*wanted)) {
    issuedIds_.insert(*wanted);
    return *wanted;
  }
  int64_t id = secondsSince1970(engine_.platform.clock.now());
  issuedIds_.erase(issuedIds_.begin(), issuedIds_.lower_bound(id));
  while (issuedIds_.contains(id) || isIdTaken(id)) ++id;
  issuedIds_.insert(id);
  return id;
}

bool DownloadStarter::isIdTaken(int64_t id) {
  if (engine_.registry.contains(id) || engine_.gate.holds(id) || engine_.store.loadState(id)) return true;
  return storedRequests().contains(id);
}

/// The caller holds the session's lock.
void DownloadStarter::makeSession() {
  if (!session_) session_ = engine_.platform.transfers.makeBackgroundSession(sessionIdentifier_, sessionDelegate_);
}

NSURLSession& DownloadStarter::session() {
  std::lock_guard guard(sessionMutex_);
  makeSession();
  return *session_;
}

std::vector<DownloadStarter::NotedTransfer> DownloadStarter::transfers() {
  std::lock_guard guard(sessionMutex_);
  std::vector<NotedTransfer> noted;
  if (!session_) return noted;
  for (const auto& transfer : session_->allTasks()) {
    if (auto note = NotedDownload::parse(transfer->taskDescription())) noted.push_back({transfer, std::move(*note)});
  }
  return noted;
}

void DownloadStarter::cancelTransfer(int64_t id) {
  for (const NotedTransfer& noted : transfers()) {
    if (noted.note.id == id) noted.transfer->cancel();
  }
}

// --- Starting ---

DownloadTaskPointer DownloadStarter::start(const DownloadRequest& request, const DelegatePointer& delegate,
                                           std::optional<int64_t> wantedId) {
  if (!URL::parse(request.url)) return nullptr;
  log("starting download {}", request.url);
  const int64_t id = makeId(wantedId);
  auto task = std::make_shared<DownloadTask>(engine_.platform.files, id, request);
  // The task waits until it has a slot and a transfer: the list may be stored at any moment, and a task that is stored
  // as waiting is started again.
  task->update([](DownloadTask::Snapshot& fields) { fields.status = DownloadStatus::queued; });
  log("task id {}, skipVideoFix: {}, skipAudioFix: {}", id, request.skipVideoFix, request.skipAudioFix);
  engine_.news.began(*task);
  engine_.registry.insert(task);
  storeAhead(task);
  startOrQueue({.task = task, .delegate = delegate});
  return task;
}

DownloadTaskPointer DownloadStarter::takeWithoutTransfer(const DownloadRequest& request,
                                                         const DelegatePointer& delegate) {
  auto task = std::make_shared<DownloadTask>(engine_.platform.files, makeId(std::nullopt), request);
  task->update([](DownloadTask::Snapshot& fields) { fields.status = DownloadStatus::processing; });
  engine_.news.began(*task);
  engine_.registry.insert(task);
  engine_.registry.setDelegate(task->id, delegate);
  return task;
}

void DownloadStarter::startOrQueue(const PendingDownload& download) {
  const int64_t id = download.task->id;
  const DownloadQueue::Admission admission = engine_.queue.admit(download);
  const auto& counts = admission.counts;
  if (!admission.hasSlot) {
    log("Download queued: {} (queue size: {}, running: {}/{})", id, counts.queued, counts.running, counts.limit);
    engine_.taskStore.persist();
  } else if (startTransfer(download)) {
    log("Download started immediately: {} (running: {}/{})", id, counts.running, counts.limit);
  } else {
    startNext();
    engine_.taskStore.persist();
  }
}

/// Throws Error.
DownloadTask::Transfer DownloadStarter::makeTransfer(const DownloadTask& task) {
  const NotedDownload note{.id = task.id, .request = task.request};
  auto transfer = session().downloadTask(task.request.url, note.text(), task.request.transfer);
  engine_.registry.mapTransfer(transfer->taskIdentifier(), task.id);
  return transfer;
}

/// Makes the transfer of a download that may have to wait, suspended, so that the transfer's note keeps the flags over
/// a kill. If that fails, the start of the download tries again.
void DownloadStarter::storeAhead(const DownloadTaskPointer& task) {
  try {
    auto transfer = makeTransfer(*task);
    task->update([&](DownloadTask::Snapshot& fields) { fields.downloadTask = std::move(transfer); });
  } catch (const Error& error) {
    log("Transfer of download {} could not be stored yet: {}", task->id, error.description());
  }
}

/// Its user may pause the download, or let it go on, at any moment: what was wished last holds.
void DownloadStarter::letGoOn(const DownloadTask& task, NSURLSessionDownloadTask& transfer) {
  bool isPaused = false;
  do {
    isPaused = task.isPaused();
    isPaused ? transfer.suspend() : transfer.resume();
  } while (task.isPaused() != isPaused);
}

/// False if the download has failed, was cancelled or paused; its slot is free then.
bool DownloadStarter::startTransfer(const PendingDownload& download) {
  const DownloadTaskPointer& task = download.task;
  if (!download.delegate.expired()) engine_.registry.setDelegate(task->id, download.delegate);
  try {
    DownloadTask::Transfer transfer = task->snapshot().downloadTask;
    if (!transfer) transfer = makeTransfer(*task);
    // The status is set first: a short transfer may be over before resume() returns.
    task->update([&](DownloadTask::Snapshot& current) {
      if (current.isEnded() || current.isPaused) return;
      current.downloadTask = transfer;
      current.status = DownloadStatus::downloading;
    });
    engine_.taskStore.persist();  // first: a kill must leave no running transfer that belongs to nothing
    letGoOn(*task, *transfer);
    const bool isEnded = task->isEnded();
    if (!isEnded && !task->isPaused()) return true;
    // The download was cancelled just now, when there was no running transfer to stop.
    if (isEnded) transfer->cancel();
  } catch (const Error& error) {
    log("Download could not be started {} {}", task->id, error.description());
    engine_.news.fail(task, RunOutcome::Where::start, std::current_exception());
    engine_.news.tellFailed(task);
  }
  engine_.queue.releaseSlot(task->id);
  return false;
}

void DownloadStarter::startNext() {
  while (!isStopped_) {
    const auto started = engine_.queue.takeNext();
    if (!started) return;
    startTaken(*started);
  }
}

void DownloadStarter::startTaken(const DownloadQueue::Started& started) {
  const DownloadTaskPointer& task = started.download.task;
  if (!URL::parse(task->request.url)) {
    log("Invalid URL for queued download: {}", task->request.url);
    engine_.queue.releaseSlot(task->id);
    return;
  }
  if (!startTransfer(started.download)) return;
  log("Started queued download: {} (running: {}/{})", task->id, started.counts.running, started.counts.limit);
}

void DownloadStarter::releaseSlot(int64_t id) {
  engine_.queue.releaseSlot(id);
  startNext();
}

}  // namespace tarn
