#include "audio/replace/AudioReplacement.h"

#include <cmath>
#include <optional>

#include "audio/AudioTrackReplacerError.h"
#include "audio/analysis/AudioFirstPTS.h"
#include "audio/replace/AudioSwap.h"
#include "audio/transcode/Transcode.h"
#include "platform/Log.h"
#include "platform/TempFile.h"
#include "presentation/RewriteCheck.h"
#include "sync/MP4EditListStripper.h"

namespace tarn {
namespace {

/// A fresh name beside the video.
Path tempPath(const ProcessingRun& run, std::string_view ending) {
  return run.fileURL.parent_path() / (makeUUID() + std::string(ending));
}

void forget(ProcessingRun& run, const Path& tempFile) {
  removeIfExists(run.files, tempFile);
  run.state.removeTempFile(tempFile);
}

SourceTiming timingOf(const std::optional<OriginalSyncInfo>& info) {
  SourceTiming timing;
  if (!info) return timing;
  timing.syncOffsetSeconds = info->syncOffsetSeconds;
  if (info->movieTimescale == 0) return timing;
  for (const OriginalEditListEntry& entry : info->audioEditList) {
    const double seconds = static_cast<double>(entry.duration) / info->movieTimescale;
    if (entry.mediaTime == -1) {
      timing.audioEmptyEditDelay = seconds;
    } else if (entry.mediaTime >= 0) {
      timing.audioMediaDurationSeconds = seconds;
    }
  }
  return timing;
}

/// A copy of the video without the audio's edit list, so that the decoder sees the whole media; nothing if the video
/// itself serves. The copy is in the run's record.
std::optional<Path> stripEditList(ProcessingRun& run, const AudioSwap& swap) {
  constexpr std::string_view none = "Audio transcoding: No audio edit list found - using original file";
  if (!swap.mayHaveEditList()) {
    logLine(none);
    return std::nullopt;
  }
  const auto hold = run.names.hold(tempPath(run, "_stripped.mp4"));
  TempFile stripped(run.files, hold.path());
  try {
    auto entries = MP4EditListStripper::stripAudioEditList(run.files, run.fileURL, stripped.path());
    if (!entries || entries->empty() || !run.files.fileExists(stripped.path())) {
      logLine(none);
      return std::nullopt;
    }
  } catch (const std::exception& failure) {
    log("Audio transcoding: Could not strip audio edit list ({}) - using original file", failure.what());
    return std::nullopt;
  }
  logLine("Audio transcoding: Using stripped input (audio edit list removed)");
  run.state.addTempFile(stripped.path());
  run.saveState();
  stripped.keep();
  return stripped.path();
}

void transcode(ProcessingRun& run, const Path& input, const Path& newAudio, double shownMediaEnd, unsigned workers) {
  const SourceTiming timing = timingOf(run.originalSyncInfo);
  if (std::abs(timing.syncOffsetSeconds) > 0.001) {
    log("  Passing syncOffsetSeconds={:.3f}s to transcoder", timing.syncOffsetSeconds);
  }
  if (timing.audioEmptyEditDelay > 0.01 || timing.audioMediaDurationSeconds) {
    log("  Original audio edit list: emptyEditDelay={:.3f}s, mediaDuration={:.3f}s", timing.audioEmptyEditDelay,
        timing.audioMediaDurationSeconds.value_or(0));
  }
  transcodeAudio(
      run.files, input, newAudio, timing, {.workers = workers}, run.token.get(),
      [&](double progress, const std::string& stage) { run.reportProgress(progress, stage); }, shownMediaEnd);
}

/// Whoever finds a run at `audioReplacing` knows by the fixed file whether the swap was done: gone, while the new audio
/// is there, means done. So its name must be on the disk before that stage is.
void makeFixedFile(ProcessingRun& run, const Path& fixed) {
  run.files.open(fixed, OpenMode::exclusive)->close();
  run.files.synchronizeDirectory(fixed.parent_path());
}

/// False if the new audio would harm or the file's boxes take no new track: the file is as it was, and the user is
/// told.
bool trySwap(ProcessingRun& run, const AudioSwap& swap, const Path& newAudio, const Path& fixed) {
  try {
    swap.swap(newAudio, fixed);
    return true;
  } catch (const RefusedResult& refusal) {
    run.leave("The sound is left as it is, for new sound would do harm: " + refusal.description());
    return false;
  } catch (const AudioTrackReplacerError& failure) {
    if (failure.kind() != AudioTrackReplacerError::Case::corruptedMP4) throw;
    run.leave("The sound is left as it is, for no track can be put into this file: " + failure.description());
    return false;
  }
}

}  // namespace

void replaceAudio(ProcessingRun& run, const std::string& done, unsigned workers) {
  logLine("Audio analysis: transcoding needed");
  logLine("Starting audio transcoding...");
  run.timer.start();
  const AudioSwap swap(run);
  const Path newAudio = tempPath(run, ".m4a");
  const Path fixed = tempPath(run, "_fixed.mp4");
  run.state.addTempFile(newAudio);
  run.state.addTempFile(fixed);
  run.saveState();
  AudioTranscodeTimings& timings = run.timings.audioTranscoding;

  TimingHelper timer;
  run.updateProcessingStage(ProcessingStage::transcodingPass1);
  const CMTime videoFirstPTS = getVideoFirstPTS(run.files, run.fileURL);
  log("  Video first PTS: {:.6f}s", videoFirstPTS.seconds());
  timings.pass1GapDetection = timer.stop();
  run.token->throwIfCancelled();
  const std::optional<Path> stripped = stripEditList(run, swap);

  timer.start();
  run.updateProcessingStage(ProcessingStage::transcodingPass2);
  transcode(run, stripped.value_or(run.fileURL), newAudio, swap.shownMediaEnd(), workers);
  timings.pass2Transcode = timer.stop();
  run.token->throwIfCancelled();

  run.updateProcessingStage(ProcessingStage::transcoded);
  timer.start();
  makeFixedFile(run, fixed);
  run.mended("", done);  // a run that is cut off after the swap goes on from this record
  run.updateProcessingStage(ProcessingStage::audioReplacing);
  run.audioWasTranscoded = trySwap(run, swap, newAudio, fixed);
  if (!run.audioWasTranscoded) std::erase(run.state.done, done);
  timings.trackReplacement = timer.stop();
  run.token->throwIfCancelled();

  // The temp files go only once the stage is stored: until then they are the sign that the swap was done, or not.
  run.updateProcessingStage(ProcessingStage::audioReplaced);
  forget(run, fixed);
  forget(run, newAudio);
  if (stripped) forget(run, *stripped);
  run.saveState();
  run.timings.audioTranscodeTotal = run.timer.stop();
  if (run.audioWasTranscoded) logLine("Audio transcoding completed");
}

}  // namespace tarn
