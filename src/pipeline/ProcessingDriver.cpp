#include "pipeline/ProcessingDriver.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <utility>

#include "pipeline/detail/PolledFiles.h"
#include "pipeline/detail/RunLayers.h"
#include "platform/Log.h"

namespace tarn {
namespace {

/// The audio step makes the fixed file before it enters `audioReplacing`, and its swap moves that file over the video
/// in one step. So a fixed file that is gone while the new audio is still there means that the swap was done. The names
/// in the recipe count too: a record may have lost its temp files.
bool wasAudioSwapped(ProcessingRun& run, RunLayers& layers) {
  if (run.state.stage != ProcessingStage::audioReplacing) return false;
  std::set<Path> files = layers.newNames();
  std::ranges::copy_if(run.state.tempFiles, std::inserter(files, files.end()),
                       [&](const Path& file) { return run.files.fileExists(file); });
  const auto isThere = [&](std::string_view ending) {
    return std::ranges::any_of(files, [&](const Path& file) { return file.native().ends_with(ending); });
  };
  return isThere(".m4a") && !isThere("_fixed.mp4");
}

}  // namespace

ProcessingDriver::ProcessingDriver(FileManager& files, const Clock& clock, ProcessingStateManager& store,
                                   NamesInTheMaking& names, RunListener& listener, ProcessingSteps steps,
                                   RunFiles runFiles)
    : files_(files),
      clock_(clock),
      store_(store),
      names_(names),
      listener_(listener),
      steps_(std::move(steps)),
      runFiles_(runFiles) {}

void ProcessingDriver::continueProcessing(const ProcessingState& state,
                                          const std::shared_ptr<CancellationToken>& cancellationToken) {
  // The run holds the name until the file is deleted or left to others. A transfer that ends meanwhile gets another
  // name.
  auto hold = names_.hold(state.fileURL);
  RunLayers layers(files_, state, runFiles_ == RunFiles::layered);
  PolledFiles files(layers.files(), cancellationToken);
  ProcessingRun run(files, clock_, names_, listener_, state, cancellationToken);
  try {
    cancellationToken->throwIfCancelled();
    const ProcessingStage start = findStart(run, layers);
    lookAhead(run, layers);
    runSteps(run, layers, start);
    finish(run);
  } catch (const std::exception& failure) {
    // A run that was asked to stop is cancelled, whatever error a worker makes of the stop.
    if (cancellationToken->isCancelled() || dynamic_cast<const CancellationError*>(&failure)) {
      log("Processing cancelled for download {} - state saved for resume", state.downloadId);
      run.outcome.kind = RunOutcome::Kind::cancelled;
    } else {
      fail(run, std::current_exception());
      run.outcome.isDiskFull |= files.wasDiskFull();
      layers.discard();
    }
  }
  const bool wasTakenAway = listener_.ended(run);
  if (wasTakenAway) layers.discard();
  deleteFiles(run, wasTakenAway);
}

ProcessingStage ProcessingDriver::findStart(ProcessingRun& run, RunLayers& layers) {
  ProcessingStage stage = run.state.stage;
  if (!layers.takeUp()) {
    run.startOver();
    return rollBack(run, ProcessingStage::downloaded);
  }
  if (wasAudioSwapped(run, layers)) return rollBack(run, ProcessingStage::audioReplaced);
  // The transcoded audio is a temp file of the interrupted step: from here on the step is done again as a whole.
  if (stage == ProcessingStage::transcoded || stage == ProcessingStage::audioReplacing) {
    return rollBack(run, ProcessingStage::remuxed);
  }
  if (!isCleanCheckpoint(stage)) return rollBack(run, rollbackTarget(stage));
  ProcessingStage start = *nextStage(stage);
  log("Resuming from checkpoint: {} → starting {}", description(stage), description(start));
  return start;
}

ProcessingStage ProcessingDriver::rollBack(ProcessingRun& run, ProcessingStage target) {
  log("Interrupted at {}, rolling back to checkpoint: {}", description(run.state.stage), description(target));
  store_.cleanupTempFiles(run.state);
  // The store deletes files; what is left stands in the run's recipe alone.
  for (const Path& file : run.state.tempFiles) {
    if (run.files.fileExists(file) && removeIfExists(run.files, file)) {
      log("Cleaned up temp file: {}", file.filename().string());
    }
  }
  run.state.tempFiles.clear();
  run.state.stage = target;
  run.state.lastUpdated = clock_.now();
  run.saveState();
  ProcessingStage start = nextStage(target).value_or(target);
  log("Restarting from: {}", description(start));
  return start;
}

/// The source is under the file's name until the run is done. Only a run that was cut off while it put its result there
/// does not know any more what the source showed.
void ProcessingDriver::lookAhead(ProcessingRun& run, RunLayers& layers) {
  const bool isSource = run.state.done.empty() || layers.areChanged();
  if (isSource && steps_.readTimeline) run.outcome.summary.before = steps_.readTimeline(files_, run.fileURL);
}

void ProcessingDriver::summarize(ProcessingRun& run) {
  RepairSummary& summary = run.outcome.summary;
  summary.wrong = run.state.wrong;
  summary.done = run.state.done;
  if (steps_.readTimeline) summary.after = steps_.readTimeline(run.files, run.fileURL);
}

void ProcessingDriver::runSteps(ProcessingRun& run, RunLayers& layers, ProcessingStage startStage) {
  // A step that is not built in is skipped.
  const auto isDue = [&](const ProcessingStep* step) { return step && startStage <= step->gateStage(); };
  if (run.state.needsRemuxing && isDue(steps_.fragments)) {
    steps_.fragments->run(run);
    // Also if the step has done nothing: a run that was cut off after it has not stored the flags.
    if (steps_.deriveFlags && !run.state.areFlagsFinal) {
      run.state.keepAskedFlags();
      steps_.deriveFlags(run.files, run.state);
      run.saveState();
    }
  }
  if (run.state.needsRemuxing && isDue(steps_.remux)) {
    steps_.remux->run(run);
  } else {
    log("Skipping video remux - startStage={}, needsRemuxing={}", rawValue(startStage), run.state.needsRemuxing);
  }
  if (run.state.needsAudioTranscode && isDue(steps_.audio)) steps_.audio->run(run);
  if (run.state.skipAVSync) {
    logLine("Skipping A/V sync fix - skipVideoFix is enabled");
  } else if (isDue(steps_.sync)) {
    steps_.sync->run(run);
  }
  summarize(run);
  run.token->throwIfCancelled();
  layers.finish(*run.token);
  if (steps_.last) steps_.last->run(run);
}

void ProcessingDriver::finish(ProcessingRun& run) {
  store_.cleanupTempFiles(run.state);
  const bool isSaved = run.outcome.kind == RunOutcome::Kind::saved;
  log("Processing completed for download {}, status: {}", run.state.downloadId, isSaved ? "completed" : "failed");
}

void ProcessingDriver::fail(ProcessingRun& run, const std::exception_ptr& failure) {
  run.outcome.setFailed(RunOutcome::Where::repair, failure);
  const std::string words = describe(failure);
  log("Processing failed for download {}: {}", run.state.downloadId, words);
  run.state.stage = ProcessingStage::failed;
  run.state.error = words;
  run.state.lastUpdated = clock_.now();
  run.saveState();
  store_.cleanupTempFiles(run.state);
}

/// Deletes what is left of a run that is over: the file of one that was saved, all files of one that was taken away.
void ProcessingDriver::deleteFiles(const ProcessingRun& run, bool wasTakenAway) {
  if (wasTakenAway) {
    std::vector<Path> files = run.state.tempFiles;
    files.push_back(run.fileURL);
    // Before the run began, another download may have brought a file of this name.
    const auto inUse = store_.filesInUse();
    for (const Path& file : files) {
      if (inUse && !inUse->contains(file)) removeIfExists(files_, file);
    }
    return;
  }
  if (run.outcome.kind != RunOutcome::Kind::saved) return;
  try {
    files_.removeItem(run.fileURL);
    log("Cleaned up processed file: {}", run.fileURL.filename().string());
  } catch (const Error& error) {
    log("Warning: Could not clean up processed file: {}", error.description());
  }
}

}  // namespace tarn
