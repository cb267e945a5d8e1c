#pragma once

#include <optional>

#include "inspect/Inspection.h"

namespace tarn {

/// Reads the first video track, with or without what its samples carry; nothing when there is none.
std::optional<VideoFacts> readVideo(FileHandle& file, bool withBitstream = true);

}  // namespace tarn
