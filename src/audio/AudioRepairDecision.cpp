#include "audio/AudioRepairDecision.h"

#include "audio/AudioTranscoder.h"
#include "pipeline/RemuxTimingHelper.h"
#include "platform/Log.h"
#include "sync/MP4AVSyncFixer.h"

namespace tarn {
namespace {

constexpr int samplesPerFrame = 1024;

void analyze(FileManager& files, const Path& fileURL, AudioFindings& findings) {
  TimingHelper timer;
  findings.analysis = AudioTranscoder::analyzeAudioForProcessing(files, fileURL);
  log("Audio analysis completed in {:.2f}s", timer.stop());
  log("Audio analysis: {}", findings.analysis.summary());
  findings.config = AudioTranscoder::analyzeAudioConfig(files, fileURL);
  log("Audio config: {}", findings.config.matchesPassthroughTarget ? "passthrough-eligible" : "requires normalize");
  if (findings.config.reason) log("  Reason: {}", *findings.config.reason);
}

void captureSync(FileManager& files, const Path& fileURL, AudioFindings& findings) {
  try {
    findings.originalSyncInfo = MP4AVSyncFixer::readOriginalSyncInfo(files, fileURL);
    log("Original sync info captured: syncOffset={:.1f}ms", findings.originalSyncInfo->syncOffsetSeconds * 1000);
  } catch (const std::exception& failure) {
    log("Warning: Could not read original sync info: {}", failure.what());
  }
}

void scanAcrossTracks(FileManager& files, const Path& fileURL, AudioFindings& findings) {
  const GapType type = findings.analysis.gapType;
  if (type != GapType::clean && type != GapType::initialOffsetOnly) return;
  logLine("Audio-only analysis suggests clean/initialOffset - running cross-track verification...");
  findings.scan = AudioTranscoder::quickCrossTrackScan(files, fileURL, findings.syncOffsetSeconds());
  log("Cross-track scan: {}", findings.scan->description());
}

void decide(AudioFindings& findings) {
  const auto silence = findings.scan ? findings.scan->silenceActions : std::vector<SilenceAction>();
  findings.actions = AudioTranscoder::convertToAudioActions(silence, findings.config.audioTimescale, samplesPerFrame);
  findings.decision = AudioTranscoder::determineRepairDecision(findings.analysis, findings.config, findings.actions);
  if (findings.scan && findings.scan->needsProcessing) {
    log("Cross-track scan found {} actions - overriding decision to fullNormalize", silence.size());
    findings.decision = {RepairDecision::Kind::fullNormalize,
                         fmt::format("Cross-track: {} video gaps without matching audio gaps", silence.size())};
  }
  log("Repair decision: {}", findings.decision.description());
}

}  // namespace

RepairDecision AudioTranscoder::determineRepairDecision(const AudioAnalysisResult& analysisResult,
                                                        const AudioConfigCheck& configCheck,
                                                        std::span<const AudioAction> actions) {
  using Kind = RepairDecision::Kind;
  constexpr size_t mostActions = 10;
  constexpr double mostSilence = 5.0;  // seconds
  if (!configCheck.matchesPassthroughTarget) {
    return {Kind::fullNormalize, configCheck.reason.value_or("Config not passthrough-eligible")};
  }
  if (analysisResult.gapType == GapType::clean) return {Kind::skip, ""};
  if (analysisResult.gapType == GapType::initialOffsetOnly) return {Kind::editListOnly, ""};
  double totalSilence = 0;
  for (const AudioAction& action : actions) {
    totalSilence += static_cast<double>(action.durationTicks) / configCheck.audioTimescale;
  }
  if (actions.size() <= mostActions && totalSilence < mostSilence &&
      analysisResult.driftRate() < RepairDecision::tooHighDriftRate) {
    return {Kind::fastPath, ""};
  }
  return {Kind::fullNormalize,
          fmt::format("Complex repair ({} actions, {:.2f}s silence)", actions.size(), totalSilence)};
}

AudioFindings decideAudioRepair(FileManager& files, const Path& fileURL) {
  AudioFindings findings;
  analyze(files, fileURL, findings);
  captureSync(files, fileURL, findings);
  scanAcrossTracks(files, fileURL, findings);
  decide(findings);
  return findings;
}

}  // namespace tarn
