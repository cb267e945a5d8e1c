#pragma once

#include <vector>

#include "audio/analysis/AudioTimeline.h"
#include "media/AVAsset.h"

namespace tarn {

/// `gapThresholdSeconds`: from where on a pause is a gap. A picture without a duration is as long as a thirtieth of a
/// second. Throws AudioTranscoderError, and the failure of a file that cannot be opened.
VideoTimeline buildVideoTimeline(const AVAsset& asset, const AVAssetTrack& videoTrack, double gapThresholdSeconds);

/// Sorts the gaps and joins those that are no further apart than the tolerance, in seconds.
std::vector<TimelineGap> mergeOverlappingGaps(std::vector<TimelineGap> gaps, double toleranceSeconds);

}  // namespace tarn
