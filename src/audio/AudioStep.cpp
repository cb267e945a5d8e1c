#include "audio/AudioStep.h"

#include "audio/AudioRepairDecision.h"
#include "audio/SoundWords.h"
#include "audio/fastpath/FastPathAudioRepair.h"
#include "audio/replace/AudioReplacement.h"
#include "media/AVAsset.h"
#include "platform/Log.h"

namespace tarn {
namespace {

void leaveAsItIs(ProcessingRun& run, const std::string& why) {
  run.leave(why);
  run.updateProcessingStage(ProcessingStage::audioReplaced);
}

void skip(ProcessingRun& run, const AudioAnalysisResult& analysis) {
  logLine("Audio analysis: clean audio - skipping transcoding");
  log("  Initial offset: {:.1f}ms", analysis.initialOffsetMs);
  log("  Internal gaps: {}", analysis.internalGapCount);
  run.updateProcessingStage(ProcessingStage::audioReplaced);
}

void leaveToEditList(ProcessingRun& run, const AudioAnalysisResult& analysis) {
  log("Audio analysis: initial offset only ({:.1f}ms) - will use edit list", analysis.initialOffsetMs);
  logLine("  No internal gaps detected - skipping transcoding");
  run.updateProcessingStage(ProcessingStage::audioReplaced);
}

/// False if the fast path failed: the file is as it was.
bool takeFastPath(ProcessingRun& run, const AudioFindings& findings) {
  logLine("Audio analysis: using fast path (compressed sample copy + silence insertion)");
  log("  Actions: {}", findings.actions.size());
  logLine("  Config: AAC-LC 48kHz stereo");
  try {
    AudioConfigCheck config = findings.config;
    config.sampleDelta = findings.packetTicks;
    performFastPathAudioRepair(run, findings.actions, config);
  } catch (const std::exception& failure) {
    log("Fast path failed: {}", failure.what());
    logLine("Falling back to full audio transcode...");
    return false;
  }
  run.audioWasTranscoded = true;
  run.mended("", doneByPackets(findings));
  run.updateProcessingStage(ProcessingStage::audioReplaced);
  return true;
}

void tellWhyToTranscode(ProcessingRun& run, const AudioFindings& findings) {
  const AudioAnalysisResult& analysis = findings.analysis;
  log("Audio analysis: full normalize required - {}", findings.decision.reason);
  if (analysis.gapType == GapType::internalGaps) {
    log("  {} internal gaps detected", analysis.internalGapCount);
    log("  Max internal gap: {:.1f}ms", analysis.maxInternalGapMs);
  } else if (analysis.gapType == GapType::timelineDrift) {
    log("  Timeline drift: {:.1f}ms", analysis.timelineDriftMs);
  }
  log("  Initial offset: {:.1f}ms", analysis.initialOffsetMs);
  if (findings.lostChannels) run.warn(*findings.lostChannels);
}

void leaveExtremeDriftAlone(ProcessingRun& run, const AudioFindings& findings) {
  log("Audio analysis: EXTREME DRIFT DETECTED ({:.1f}s)", findings.analysis.timelineDriftMs / 1000);
  logLine("  Drift exceeds 60s threshold - skipping transcoding to avoid decoder hang");
  logLine("  File has severely corrupted audio timeline, using original audio");
  leaveAsItIs(run, extremeDriftWords(findings));
}

}  // namespace

void AudioStep::run(ProcessingRun& run) {
  run.token->throwIfCancelled();
  if (AVAsset(run.files, run.fileURL).tracks(AVMediaType::audio).empty()) return;
  const AudioFindings findings = decideAudioRepair(run.files, run.fileURL);
  run.originalSyncInfo = findings.originalSyncInfo;
  for (const std::string& fault : wrongWithSound(findings)) run.mended(fault, "");
  using Kind = RepairDecision::Kind;
  switch (findings.decision.kind) {
    case Kind::skip:
      if (findings.obstacle) return leaveAsItIs(run, *findings.obstacle);
      return skip(run, findings.analysis);
    case Kind::editListOnly:
      return leaveToEditList(run, findings.analysis);
    case Kind::fastPath:
      if (takeFastPath(run, findings)) return;
      break;
    case Kind::fullNormalize:
      tellWhyToTranscode(run, findings);
      break;
  }
  if (hasExtremeDrift(findings.analysis)) return leaveExtremeDriftAlone(run, findings);
  replaceAudio(run, doneByEncoding(findings), workers_);
}

}  // namespace tarn
