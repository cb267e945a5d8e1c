#pragma once

#include "audio/analysis/AudioTimeline.h"
#include "media/AVAsset.h"

namespace tarn {

/// For a file without video. `sampleRate` is the output rate, in Hz. Throws AudioTranscoderError.
GapDetectionResult detectAudioGaps(const AVAsset& asset, const AVAssetTrack& audioTrack, double sampleRate,
                                   double gapThresholdMs);

}  // namespace tarn
