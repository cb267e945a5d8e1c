#pragma once

#include <string>
#include <vector>

#include "corpus/Playback.h"

namespace tarn::test {

/// What a result may differ in from its source.
struct Allowed {
  bool audio = false;      ///< the packets of the first audio track, but not what is heard and when
  bool audioStays = true;  ///< the first audio track must be as even as it was; else it must be even now
  size_t entries = 0;      ///< sample entries that the first video track must have, each complete; 0: not looked at
};

/// Everything in which a result is worse than its source or has kept damage, in words; empty for a good one. Reads both
/// as ffmpeg and ffprobe do, pictures, packets with their flags, audio, tracks and metadata.
std::vector<std::string> worsened(const Path& source, const Path& result, const Allowed& allowed);

}  // namespace tarn::test
