#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "audio/analysis/AudioTimeline.h"
#include "media/AVAsset.h"

namespace tarn {

/// Where silence is missing, by the two timelines side by side. `syncOffsetSeconds` is that of the source, positive
/// when its audio is delayed; 0 if it is not known. Gaps of both tracks match that are no further apart than the
/// tolerance.
std::vector<SilenceAction> detectSilenceActions(const VideoTimeline& videoTimeline, const AudioCoverage& audioCoverage,
                                                double sampleRate, double syncOffsetSeconds,
                                                double gapMatchToleranceSeconds);

/// Never fails: a file that cannot be scanned gives the empty result.
QuickCrossTrackResult quickCrossTrackScan(const AVAsset& asset, double syncOffsetSeconds);

/// The same in samples and ticks of a track. `aacSamplesPerFrame` is not 0.
std::vector<AudioAction> convertToAudioActions(std::span<const SilenceAction> silenceActions, int32_t audioTimescale,
                                               int aacSamplesPerFrame);

}  // namespace tarn
