#pragma once

#include "audio/analysis/AudioAnalysis.h"
#include "media/AVAsset.h"

namespace tarn {

/// What is wrong with the media of a sound track, however its edit list lays it out: a pause or a cut of the list is no
/// gap. Of the gaps and overlaps those count that are shown; their positions are on the movie's timeline, and
/// `frameIndex` numbers the track's samples. The drift is by how much the times of the packets run away from what they
/// hold, gaps included. Not counted are the length of the last packet, what a recorder adds to the first one (up to a
/// quarter of a second), and packets of other codecs than AAC, unless they last a minute longer in all than packets do.
/// Throws Error if the tables cannot be read; the analysis ends before a packet that is not in the file.
InternalGapResult detectMediaGaps(const AVAsset& asset, const AVAssetTrack& audioTrack, AACType aacType,
                                  double gapThresholdMs);

}  // namespace tarn
