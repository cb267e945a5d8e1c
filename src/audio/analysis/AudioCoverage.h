#pragma once

#include "audio/analysis/AudioTimeline.h"
#include "media/AVAsset.h"

namespace tarn {

/// `videoRebaseOffset` is the time of the first picture, `gapThresholdSeconds` from where on a pause is a gap. A buffer
/// without a duration is as long as its frames at `sampleRate`, in Hz. Throws AudioTranscoderError, and the failure of
/// a file that cannot be opened.
AudioCoverage buildAudioCoverage(const AVAsset& asset, const AVAssetTrack& audioTrack, const CMTime& videoRebaseOffset,
                                 double sampleRate, double gapThresholdSeconds);

}  // namespace tarn
