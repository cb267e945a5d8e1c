#include "download/DownloadManager.h"
#include "platform/Log.h"

namespace tarn {

void DownloadManager::queueOrStartProcessing(const ProcessingState& state, const DownloadTaskPointer& download) {
  const int64_t id = state.downloadId;
  auto admission = gate_.admit(state, [&] { return !download->isEnded(); });
  if (admission.isRefused) {
    store_.removeState(id);
    removeIfExists(platform_.files, state.fileURL);
    return;
  }
  if (admission.token) {
    log("Processing started immediately: {}", id);
    startRun({state, admission.token}, download);
    return;
  }
  showStage(download, fmt::format("Queued for processing ({})", admission.position));
  log("Processing queued: {} (position: {}, current: {})", id, admission.position, admission.currentId);
}

void DownloadManager::startRun(const ProcessingGate::Start& start, const DownloadTaskPointer& download) {
  backgroundTime_->startIfNeeded(start.state.downloadId);
  post(*processingWorker_, [start, download](DownloadManager& self) {
    self.driver_.continueProcessing(start.state, download, start.token);
  });
}

void DownloadManager::endRun(const Token& token) {
  DownloadTaskPointer task;
  auto next = gate_.endRun(token, [&](int64_t id) {
    task = registry_.find(id);
    return task != nullptr;
  });
  if (!next.wasCurrent) return;
  for (int64_t id : next.skipped) log("Download {} was cancelled while queued - skipping, trying next", id);
  if (!next.start) {
    logLine("Processing queue empty - no more videos to process");
    return;
  }
  size_t position = 0;
  for (int64_t id : next.waiting) {
    ++position;
    if (auto waiting = registry_.find(id)) {
      showStage(waiting, fmt::format("Queued for processing (position {})", position));
    }
  }
  showStage(task, "Starting...");
  log("Starting queued processing: {} (remaining in queue: {})", task->id, next.waiting.size());
  startRun(*next.start, task);
}

void DownloadManager::showStage(const DownloadTaskPointer& download, const std::string& stage) {
  progressUpdated(download, 0, stage);
}

void DownloadManager::checkAndResumePendingProcessing() {
  if (auto active = gate_.activeRun()) {
    log("Processing already active for download {} - skipping resume check", *active);
    return;
  }
  const auto pending = store_.allPendingStates();
  if (!pending || pending->empty()) return;
  log("Found {} pending processing state(s) to resume", pending->size());
  if (auto start = gate_.resume(pending->front().downloadId)) resumeProcessing(*start);
}

void DownloadManager::resumeProcessing(const ProcessingGate::Start& start) {
  const ProcessingState& state = start.state;
  log("Resuming processing for download {} from stage: {}", state.downloadId, description(state.stage));
  auto task = registry_.find(state.downloadId);
  if (!task) {
    task = std::make_shared<DownloadTask>(platform_.files, state.downloadId, "", state.album, state.filename);
    task->update([&](DownloadTask::Snapshot& fields) { fields.location = state.fileURL; });
  }
  task->update([](DownloadTask::Snapshot& fields) { fields.status = DownloadStatus::processing; });
  registry_.insert(task);
  taskStore_.persist();
  startRun(start, task);
}

void DownloadManager::handleAppDidEnterBackground() {
  auto active = gate_.activeRun();
  if (!active) {
    logLine("App entering background - no processing active");
    return;
  }
  logLine("App entering background during processing - starting background task");
  backgroundTime_->start(*active);
}

void DownloadManager::handleBackgroundExpiration() {
  logLine("Background time expiring - saving checkpoint and cancelling operations");
  if (auto record = gate_.expire()) log("Saved checkpoint at stage: {}", description(record->stage));
  backgroundTime_->end();
}

void DownloadManager::endBackgroundTask() {
  backgroundTime_->end();
}

bool DownloadManager::saveRecord(const CancellationToken& token, const ProcessingState& record) {
  return gate_.saveRecord(token, record);
}

void DownloadManager::progressUpdated(const DownloadTaskPointer& download, double progress, const std::string& stage) {
  download->update([&](DownloadTask::Snapshot& fields) {
    fields.processingProgress = progress;
    fields.processingStage = stage;
  });
  postToMain([id = download->id, progress, stage](DownloadManager& self) {
    if (auto delegate = self.registry_.delegate(id)) delegate->processingProgressUpdated(id, progress, stage);
  });
}

void DownloadManager::replaceDownload(const DownloadTaskPointer& download) {
  registry_.replace(download);
  taskStore_.persist();
}

void DownloadManager::removeRecord(const CancellationToken& token, int64_t id) {
  gate_.removeRecord(token, id);
}

void DownloadManager::releaseBackgroundTimeAndSlot(int64_t id) {
  backgroundTime_->end(id);
  releaseSlot(id);
}

void DownloadManager::notifyFinished(const DownloadTaskPointer& download, const Path& location) {
  postToMain([download, location](DownloadManager& self) {
    bool wasSent = false;
    download->update([&](DownloadTask::Snapshot& fields) { wasSent = std::exchange(fields.notificationSent, true); });
    if (wasSent) return;
    auto fields = download->snapshot();
    const bool isSaved = fields.status == DownloadStatus::completed;
    if (fields.onDownloadComplete) {
      fields.onDownloadComplete(download, isSaved ? std::optional(location) : std::nullopt);
    } else if (auto delegate = self.registry_.delegate(download->id)) {
      isSaved ? delegate->downloadDidFinish(download, location) : delegate->downloadDidFailed(download);
    }
  });
}

void DownloadManager::notifyFailed(const DownloadTaskPointer& download) {
  postToMain([download](DownloadManager& self) {
    if (auto delegate = self.registry_.delegate(download->id)) delegate->downloadDidFailed(download);
  });
}

}  // namespace tarn
