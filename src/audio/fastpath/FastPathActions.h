#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "audio/analysis/AudioAnalysis.h"
#include "media/AVAsset.h"

namespace tarn {

/// How the fast path lays a track's packets out so that each stays where the track's table has it.
struct FastPathLayout {
  std::vector<AudioAction> actions;  ///< whole silent packets, for each gap those that fill it best
  int64_t packetTicks = 0;           ///< length of each packet, in the track's timescale
};

/// A gap counts from half a packet on. Nothing if some packet would come to be more than a packet's length off its
/// place, or if a packet is no whole number of ticks long. Throws Error if the tables cannot be read.
std::optional<FastPathLayout> layOutForFastPath(const AVAsset& asset, const AVAssetTrack& audioTrack);

}  // namespace tarn
