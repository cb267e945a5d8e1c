#include "audio/AudioRepairDecision.h"

#include "audio/AudioTranscoderError.h"
#include "audio/analysis/AudioConfig.h"
#include "audio/analysis/AudioInternalGaps.h"
#include "audio/analysis/MediaGaps.h"
#include "audio/analysis/SilenceActions.h"
#include "audio/analysis/SoundObstacle.h"
#include "audio/fastpath/FastPathActions.h"
#include "pipeline/RemuxTimingHelper.h"
#include "platform/Log.h"
#include "platform/ReadWatch.h"
#include "sync/MP4AVSyncFixer.h"

namespace tarn {
namespace {

using Kind = RepairDecision::Kind;

AVAssetTrack firstAudioTrack(const AVAsset& asset) {
  const auto tracks = asset.tracks(AVMediaType::audio);
  if (tracks.empty()) throw AudioTranscoderError::noAudioTrack();
  return tracks.front();
}

class AudioDecision {
 public:
  AudioDecision(FileManager& files, const Path& fileURL)
      : files_(files), fileURL_(fileURL), asset_(files, fileURL), track_(firstAudioTrack(asset_)) {}

  AudioFindings make() {
    analyze();
    captureSync();
    scanAcrossTracks();
    decide();
    log("Repair decision: {}", found_.decision.description());
    return std::move(found_);
  }

 private:
  void analyze() {
    TimingHelper timer;
    found_.analysis = analyzeAudioForProcessing(asset_, detectMediaGaps);
    log("Audio analysis completed in {:.2f}s", timer.stop());
    log("Audio analysis: {}", found_.analysis.summary());
    found_.config = analyzeAudioConfig(files_, fileURL_);
    if (!track_.formatDescriptions.empty()) found_.codec = track_.formatDescriptions.front()->codec;
    log("Audio config: {}", found_.config.matchesPassthroughTarget ? "passthrough-eligible" : "requires normalize");
    if (found_.config.reason) log("  Reason: {}", *found_.config.reason);
  }

  void captureSync() {
    try {
      found_.originalSyncInfo = MP4AVSyncFixer::readOriginalSyncInfo(files_, fileURL_);
      log("Original sync info captured: syncOffset={:.1f}ms", found_.originalSyncInfo->syncOffsetSeconds * 1000);
    } catch (const std::exception& failure) {
      log("Warning: Could not read original sync info: {}", failure.what());
    }
  }

  /// Its silence for a late start does not count: a late start is what the source's own lists say.
  void scanAcrossTracks() {
    if (!isWhole()) return;
    logLine("Audio-only analysis suggests clean/initialOffset - running cross-track verification...");
    found_.scan = quickCrossTrackScan(asset_, found_.syncOffsetSeconds());
    log("Cross-track scan: {}", found_.scan->description());
  }

  void decide() {
    const bool isAlone = asset_.tracks(AVMediaType::video).empty();
    if (isWhole() && (found_.config.isPlayableAAC() || isAlone)) {
      found_.decision.kind = found_.analysis.gapType == GapType::clean ? Kind::skip : Kind::editListOnly;
      return;
    }
    const SoundOutlook outlook = outlookOnSoundRepair(asset_, track_);
    if (outlook.obstacle) {
      found_.obstacle = "The sound stays as it is: " + *outlook.obstacle;
      return;
    }
    decideOnRepair();
    if (found_.decision.kind == Kind::fullNormalize && outlook.channels > 2) {
      found_.lostChannels = fmt::format("of the sound's {} channels two remain", outlook.channels);
    }
  }

  void decideOnRepair() {
    if (!found_.config.isAAC) {
      found_.decision = {Kind::fullNormalize, found_.config.reason.value_or("Codec other than AAC")};
      return;
    }
    std::optional<FastPathLayout> layout;
    if (found_.config.matchesPassthroughTarget && found_.analysis.needsTranscoding) layout = layOut();
    if (layout) {
      found_.actions = std::move(layout->actions);
      found_.packetTicks = layout->packetTicks;
    }
    found_.decision = determineRepairDecision(found_.analysis, found_.config, found_.actions);
    if (found_.decision.kind == Kind::fastPath && !layout) {
      found_.decision = {Kind::fullNormalize, "Packets alone cannot keep the time"};
    }
  }

  std::optional<FastPathLayout> layOut() const {
    try {
      return layOutForFastPath(asset_, track_);
    } catch (const Error&) {
      return std::nullopt;
    }
  }

  bool isWhole() const {
    const GapType type = found_.analysis.gapType;
    return type == GapType::clean || type == GapType::initialOffsetOnly;
  }

  FileManager& files_;
  const Path& fileURL_;
  AVAsset asset_;
  AVAssetTrack track_;
  AudioFindings found_;
};

}  // namespace

RepairDecision determineRepairDecision(const AudioAnalysisResult& analysisResult, const AudioConfigCheck& configCheck,
                                       std::span<const AudioAction> actions) {
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
  // What cannot be read would pass for what is not there, and lead to another decision.
  return readWatched(WatchedFiles(files), [&](FileManager& watched) { return AudioDecision(watched, fileURL).make(); });
}

}  // namespace tarn
