#pragma once

#include <optional>
#include <vector>

#include "platform/FileManager.h"

namespace tarn {

/// What a decoder makes of the pictures of a clip.
struct DecodedPictures {
  size_t count = 0;
  std::vector<double> flashes = {};  ///< times of white pictures, in seconds
};

/// Nothing if the decoder refuses or complains. `scratch` is a directory for files on the way. Throws Error.
std::optional<DecodedPictures> decodePictures(FileManager& files, const Path& clip, const Path& scratch);

/// How much later than this flash its beep is heard by a player that plays the packets of the sound one after the
/// other, as many do, in seconds; nothing if there is no beep within half a second. Throws Error.
std::optional<double> beepBehind(FileManager& files, const Path& clip, double flash, const Path& scratch);

}  // namespace tarn
