#include "download/DownloadManager.h"
#include "platform/Log.h"

namespace tarn {

void DownloadManager::queueOrStartProcessing(const ProcessingState& state, const DownloadTaskPointer& download) {
  const int64_t id = state.downloadId;
  auto admission = gate_.admit(state, [&] { return !download->isEnded(); });
  if (admission.isRefused) {
    store_.removeState(id);
    sweep_.deleteFilesOf(state);
    return;
  }
  if (admission.token) {
    log("Processing started immediately: {}", id);
    startRun({state, admission.token});
    return;
  }
  showStage(download, fmt::format("Queued for processing ({})", admission.position));
  log("Processing queued: {} (position: {}, current: {})", id, admission.position, admission.currentId);
}

void DownloadManager::startRun(const ProcessingGate::Start& start) {
  postToMain([id = start.state.downloadId](DownloadManager& self) {
    if (self.platform_.application.applicationState() == UIApplicationState::active) {
      logLine("App is active - no background task needed yet");
      return;
    }
    logLine("App not active when processing started - starting background task");
    self.startBackgroundTime(id);
  });
  post(*processingWorker_,
       [start](DownloadManager& self) { self.driver_.continueProcessing(start.state, start.token); });
}

/// For a run that may end at any moment. Its end frees the gate first and gives background time back then, so one of
/// the two sees what the other did.
void DownloadManager::startBackgroundTime(int64_t id) {
  backgroundTime_->start(id);
  if (gate_.activeRun() != id) backgroundTime_->end(id);
}

void DownloadManager::fail(const DownloadTaskPointer& download, RunOutcome::Where where,
                           const std::exception_ptr& failure) {
  outcomes_(RunOutcome::failed(download->id, where, failure));
  download->fail(failure);
}

bool DownloadManager::ended(const ProcessingRun& run) {
  using enum RunOutcome::Kind;
  const RunOutcome& outcome = run.outcome;
  const DownloadTaskPointer download = registry_.find(outcome.id);
  outcomes_(outcome);
  if (download) showOutcome(run, download);
  DownloadTaskPointer nextDownload;
  const auto next = gate_.endRun(run.token, outcome, [&](int64_t waiting) {
    nextDownload = registry_.find(waiting);
    return nextDownload != nullptr;
  });
  backgroundTime_->end(outcome.id);
  if (outcome.kind != cancelled) releaseSlot(outcome.id);
  // Nobody hears of a download that is out of the registry.
  if (download && !next.wasTakenAway) {
    if (outcome.isFinal()) notifyFinished(download, run.fileURL);
    if (!outcome.isFinal() && outcome.kind == failed) notifyFailed(download);
  }
  if (next.wasCurrent) startNextRun(next, nextDownload);
  return next.wasTakenAway;
}

void DownloadManager::showOutcome(const ProcessingRun& run, const DownloadTaskPointer& download) {
  const RunOutcome& outcome = run.outcome;
  if (outcome.kind == RunOutcome::Kind::cancelled) return;
  if (outcome.kind == RunOutcome::Kind::failed) download->fail(outcome.failure);
  download->update([&](DownloadTask::Snapshot& fields) {
    if (outcome.kind == RunOutcome::Kind::saved) {
      fields.status = DownloadStatus::completed;
      fields.assetId = outcome.assetId;
      // The run deletes the file while it holds its name. The task's removal must not do it later: by then another
      // download may have brought a new file of that name.
      fields.location.reset();
    } else if (outcome.isFinal() && !fields.isEnded()) {
      fields.location = run.fileURL;  // the task's removal deletes the file that could not be saved
    }
  });
  taskStore_.persist();
}

void DownloadManager::startNextRun(const ProcessingGate::Next& next, const DownloadTaskPointer& download) {
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
  showStage(download, "Starting...");
  log("Starting queued processing: {} (remaining in queue: {})", download->id, next.waiting.size());
  startRun(*next.start);
}

void DownloadManager::showStage(const DownloadTaskPointer& download, const std::string& stage) {
  progressUpdated(download->id, 0, stage);
}

void DownloadManager::checkAndResumePendingProcessing() {
  if (auto active = gate_.activeRun()) {
    log("Processing already active for download {} - skipping resume check", *active);
    return;
  }
  const auto pending = store_.allPendingStates();
  if (!pending || pending->empty()) return;
  log("Found {} pending processing state(s) to resume", pending->size());
  for (const ProcessingState& state : *pending) {
    if (resumeProcessing(state.downloadId)) return;
  }
}

/// False when the record cannot be resumed now, or not any more.
bool DownloadManager::resumeProcessing(int64_t id) {
  DownloadTaskPointer task;
  const auto start = gate_.resume(id, [&](const ProcessingState& state) {
    task = registry_.find(id);
    if (!task) {
      task = std::make_shared<DownloadTask>(platform_.files, id, "", state.album, state.filename);
      task->update([&](DownloadTask::Snapshot& fields) { fields.location = state.fileURL; });
    }
    bool isWanted = false;  // whoever cancels it ends the task first, and then cancels at the gate
    task->update([&](DownloadTask::Snapshot& fields) {
      isWanted = !fields.isEnded();
      if (isWanted) fields.status = DownloadStatus::processing;
    });
    if (isWanted) registry_.insert(task);
    return isWanted;
  });
  if (!start) return false;
  log("Resuming processing for download {} from stage: {}", id, description(start->state.stage));
  taskStore_.persist();
  startRun(*start);
  return true;
}

void DownloadManager::handleAppDidEnterBackground() {
  auto active = gate_.activeRun();
  if (!active) {
    logLine("App entering background - no processing active");
    return;
  }
  logLine("App entering background during processing - starting background task");
  startBackgroundTime(*active);
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

void DownloadManager::progressUpdated(int64_t id, double progress, const std::string& stage) {
  const DownloadTaskPointer download = registry_.find(id);
  if (!download) return;
  download->update([&](DownloadTask::Snapshot& fields) {
    fields.processingProgress = progress;
    fields.processingStage = stage;
  });
  postToMain([id, progress, stage](DownloadManager& self) {
    if (auto delegate = self.registry_.delegate(id)) delegate->processingProgressUpdated(id, progress, stage);
  });
}

void DownloadManager::notifyFinished(const DownloadTaskPointer& download, const Path& location) {
  postToMain([download, location](DownloadManager& self) {
    if (!download->claimNotification()) return;
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
    if (!download->claimNotification()) return;
    if (auto delegate = self.registry_.delegate(download->id)) delegate->downloadDidFailed(download);
  });
}

}  // namespace tarn
