#pragma once

#include <optional>

#include "audio/AudioRepairDecision.h"
#include "audio/AudioTranscoderError.h"
#include "audio/analysis/AudioConfig.h"
#include "audio/analysis/AudioCoverage.h"
#include "audio/analysis/AudioFirstPTS.h"
#include "audio/analysis/AudioFormatFacts.h"
#include "audio/analysis/AudioGapDetection.h"
#include "audio/analysis/AudioInternalGaps.h"
#include "audio/analysis/SilenceActions.h"
#include "audio/analysis/VideoTimeline.h"
#include "audio/transcode/Transcode.h"

namespace tarn {

/// Finds out what is wrong with a file's audio, and makes it anew. Each operation is the function of its name, and is
/// described there. No state; an operation works on the thread of its caller. Of each kind the first track alone
/// counts. The analysis reads compressed samples and never decodes.
class AudioTranscoder {
 public:
  using Config = TranscodeConfig;
  using ProgressCallback = TranscodeProgress;
  using FirstPTS = tarn::FirstPTS;
  using PacketCount = tarn::PacketCount;
  using AudioTimingInfo = tarn::AudioTimingInfo;
  using GapDetection = tarn::GapDetection;

  // What kind of audio it is, and whether it is whole.

  static AudioAnalysisResult analyzeAudioForProcessing(FileManager& files, const Path& fileURL) {
    return tarn::analyzeAudioForProcessing(AVAsset(files, fileURL));
  }
  static AudioAnalysisResult analyzeAudioForProcessing(const AVAsset& asset,
                                                       const GapDetection& detectGaps = tarn::detectInternalGaps) {
    return tarn::analyzeAudioForProcessing(asset, detectGaps);
  }
  static constexpr auto& detectAACType = tarn::detectAACType;
  static constexpr auto& detectAACFrameSize = tarn::detectAACFrameSize;
  static constexpr auto& detectActualSampleRate = tarn::detectActualSampleRate;
  static constexpr auto& getSourceChannelCount = tarn::getSourceChannelCount;
  static constexpr auto& getFirstPTSForTracks = tarn::getFirstPTSForTracks;
  static constexpr auto& getVideoFirstPTS = tarn::getVideoFirstPTS;
  static constexpr auto& countSamples = tarn::countSamples;
  static constexpr auto& detectInternalGaps = tarn::detectInternalGaps;
  static constexpr auto& parseAudioTimingInfo = tarn::parseAudioTimingInfo;
  static constexpr auto& analyzeAudioConfig = tarn::analyzeAudioConfig;
  static constexpr auto& determineRepairDecision = tarn::determineRepairDecision;

  // The two timelines side by side. Thresholds and tolerances in seconds.

  static constexpr auto& buildVideoTimeline = tarn::buildVideoTimeline;
  static constexpr auto& buildAudioCoverage = tarn::buildAudioCoverage;
  static constexpr auto& mergeOverlappingGaps = tarn::mergeOverlappingGaps;
  static constexpr auto& detectSilenceActions = tarn::detectSilenceActions;
  static QuickCrossTrackResult quickCrossTrackScan(FileManager& files, const Path& fileURL, double syncOffsetSeconds) {
    return tarn::quickCrossTrackScan(AVAsset(files, fileURL), syncOffsetSeconds);
  }
  static QuickCrossTrackResult quickCrossTrackScan(const AVAsset& asset, double syncOffsetSeconds) {
    return tarn::quickCrossTrackScan(asset, syncOffsetSeconds);
  }
  static constexpr auto& convertToAudioActions = tarn::convertToAudioActions;
  static constexpr auto& detectAudioGaps = tarn::detectAudioGaps;

  // Making it anew.

  /// `originalAudioEmptyEditDelay` and the two values after it are those of SourceTiming; the picture's PTS is unused.
  static void transcodeAudio(FileManager& files, const Path& inputURL, const Path& outputURL,
                             const std::optional<CMTime>& /*videoFirstPTS*/, double originalAudioEmptyEditDelay,
                             const std::optional<double>& originalAudioMediaDurationSeconds, double syncOffsetSeconds,
                             const Config& config, const CancellationToken* cancellationToken,
                             const ProgressCallback& progressCallback,
                             const std::optional<double>& shownMediaEnd = {}) {
    tarn::transcodeAudio(files, inputURL, outputURL,
                         {originalAudioEmptyEditDelay, originalAudioMediaDurationSeconds, syncOffsetSeconds}, config,
                         cancellationToken, progressCallback, shownMediaEnd);
  }
};

}  // namespace tarn
