#include "download/detail/ProcessingLine.h"

#include "platform/Log.h"

namespace tarn {

ProcessingLine::ProcessingLine(EngineState& engine, DownloadStarter& starter, const ProcessingSteps& steps)
    : engine_(engine),
      starter_(starter),
      driver_(engine.platform.files, engine.platform.clock, engine.store, engine.names, *this, steps,
              RunFiles::layered),
      backgroundTime_(engine.platform.application, engine.posts, [this] { backgroundTimeExpires(); }),
      worker_(engine.platform.dispatch.makeSerialQueue("com.tarn.processing", true)) {}

void ProcessingLine::enter(const ProcessingState& record, const DownloadTaskPointer& download) {
  const int64_t id = record.downloadId;
  const auto admission = engine_.gate.admit(record, [&] { return !download->isEnded(); });
  if (admission.isRefused) {
    engine_.store.removeState(id);
    engine_.sweep.deleteFilesOf(record);
    return;
  }
  if (admission.token) {
    log("Processing started immediately: {}", id);
    startRun({record, admission.token});
    return;
  }
  engine_.news.showProgress(id, 0, fmt::format("Queued for processing ({})", admission.position));
  log("Processing queued: {} (position: {}, current: {})", id, admission.position, admission.currentId);
}

void ProcessingLine::startRun(const ProcessingGate::Start& start) {
  engine_.posts.postToMain([this, id = start.state.downloadId] {
    if (engine_.platform.application.applicationState() == UIApplicationState::active) {
      logLine("App is active - no background task needed yet");
      return;
    }
    logLine("App not active when processing started - starting background task");
    startBackgroundTime(id);
  });
  engine_.posts.post(*worker_, [this, start] { driver_.continueProcessing(start.state, start.token); });
}

/// The run may end at any moment. Its end frees the gate and then gives background time back; this takes the time and
/// then looks at the gate. So one of the two gives it back.
void ProcessingLine::startBackgroundTime(int64_t id) {
  backgroundTime_.start(id);
  if (engine_.gate.activeRun() != id) backgroundTime_.end(id);
}

bool ProcessingLine::ended(const ProcessingRun& run) {
  using enum RunOutcome::Kind;
  const RunOutcome& outcome = run.outcome;
  const DownloadTaskPointer download = engine_.registry.find(outcome.id);
  // A run that was asked to stop is taken up again, unless its download was cancelled, which then was told.
  if (outcome.kind != cancelled) engine_.news.ended(outcome);
  if (download) showOutcome(run, download);
  const auto isKnown = [this](int64_t id) { return engine_.registry.contains(id); };
  const auto next = engine_.gate.endRun(run.token, outcome, isKnown);
  backgroundTime_.end(outcome.id);
  if (outcome.kind != cancelled) starter_.releaseSlot(outcome.id);
  // Nobody is told of a download that is out of the registry.
  if (download && !next.wasTakenAway) {
    if (outcome.isFinal()) engine_.news.tellFinished(download, run.fileURL);
    if (!outcome.isFinal() && outcome.kind == failed) engine_.news.tellFailed(download);
  }
  if (next.wasCurrent) startNextRun(next);
  return next.wasTakenAway;
}

void ProcessingLine::showOutcome(const ProcessingRun& run, const DownloadTaskPointer& download) {
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
  engine_.taskStore.persist();
}

void ProcessingLine::startNextRun(const ProcessingGate::Next& next) {
  for (int64_t id : next.skipped) log("Download {} was cancelled while queued - skipping, trying next", id);
  if (!next.start) {
    logLine("Processing queue empty - no more videos to process");
    return;
  }
  size_t position = 0;
  for (int64_t id : next.waiting) {
    ++position;
    engine_.news.showProgress(id, 0, fmt::format("Queued for processing (position {})", position));
  }
  const int64_t id = next.start->state.downloadId;
  engine_.news.showProgress(id, 0, "Starting...");
  log("Starting queued processing: {} (remaining in queue: {})", id, next.waiting.size());
  startRun(*next.start);
}

void ProcessingLine::resumeOldest() {
  if (const auto active = engine_.gate.activeRun()) {
    log("Processing already active for download {} - skipping resume check", *active);
    return;
  }
  const auto pending = engine_.store.allPendingStates();
  if (!pending || pending->empty()) return;
  log("Found {} pending processing state(s) to resume", pending->size());
  for (const ProcessingState& state : *pending) {
    if (resume(state.downloadId)) return;
  }
}

/// Returns false if the record cannot be resumed, now or at all.
bool ProcessingLine::resume(int64_t id) {
  DownloadTaskPointer task;
  const auto start = engine_.gate.resume(id, [&](const ProcessingState& state) {
    task = engine_.registry.find(id);
    if (!task) {
      const DownloadRequest request{.url = "", .album = state.album, .filename = state.filename};
      task = std::make_shared<DownloadTask>(engine_.platform.files, id, request);
      task->update([&](DownloadTask::Snapshot& fields) { fields.location = state.fileURL; });
    }
    bool isWanted = false;  // whoever cancels it ends the task first, and then cancels at the gate
    task->update([&](DownloadTask::Snapshot& fields) {
      isWanted = !fields.isEnded();
      if (isWanted) fields.status = DownloadStatus::processing;
    });
    if (isWanted) engine_.registry.insert(task);
    return isWanted;
  });
  if (!start) return false;
  log("Resuming processing for download {} from stage: {}", id, description(start->state.stage));
  engine_.taskStore.persist();
  startRun(*start);
  return true;
}

void ProcessingLine::didEnterBackground() {
  const auto active = engine_.gate.activeRun();
  if (!active) {
    logLine("App entering background - no processing active");
    return;
  }
  logLine("App entering background during processing - starting background task");
  startBackgroundTime(*active);
}

void ProcessingLine::backgroundTimeExpires() {
  logLine("Background time expiring - saving checkpoint and cancelling operations");
  if (const auto record = engine_.gate.expire()) log("Saved checkpoint at stage: {}", description(record->stage));
  backgroundTime_.end();
}

bool ProcessingLine::saveRecord(const CancellationToken& token, const ProcessingState& record) {
  return engine_.gate.saveRecord(token, record);
}

void ProcessingLine::progressUpdated(int64_t id, double progress, const std::string& stage) {
  engine_.news.showProgress(id, progress, stage);
}

}  // namespace tarn
