#pragma once

#include <functional>

#include "audio/analysis/AudioAnalysis.h"
#include "media/AVAsset.h"

namespace tarn {

/// On the timeline that the edit list makes. Throws AudioTranscoderError.
InternalGapResult detectInternalGaps(const AVAsset& asset, const AVAssetTrack& audioTrack, AACType aacType,
                                     double gapThresholdMs);

using GapDetection = std::function<InternalGapResult(const AVAsset& asset, const AVAssetTrack& audioTrack,
                                                     AACType aacType, double gapThresholdMs)>;

/// Never fails: audio whose gaps cannot be detected needs transcoding.
AudioAnalysisResult analyzeAudioForProcessing(const AVAsset& asset,
                                              const GapDetection& detectGaps = detectInternalGaps);

}  // namespace tarn
