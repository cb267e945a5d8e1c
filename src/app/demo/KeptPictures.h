#pragma once

#include "platform/FileManager.h"

namespace tarn {

/// Of the coded pictures in the first video track of a movie, how many are in another one, byte for byte and in their
/// order. Throws Error if the tables of one of them cannot be read.
struct KeptPictures {
  uint32_t kept = 0;
  uint32_t all = 0;
};
KeptPictures keptPictures(FileManager& files, const Path& before, const Path& after);

}  // namespace tarn
