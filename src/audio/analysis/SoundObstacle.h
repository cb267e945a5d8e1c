#pragma once

#include <optional>
#include <string>

#include "media/AVAsset.h"

namespace tarn {

/// Whether a sound track can be made anew. Decodes its first packets at most.
struct SoundOutlook {
  std::optional<std::string> obstacle;  ///< why not, in words for people that follow a colon
  int channels = 0;                     ///< that come out of its decoder; 0 if that was not tried
};
SoundOutlook outlookOnSoundRepair(const AVAsset& asset, const AVAssetTrack& audioTrack);

}  // namespace tarn
