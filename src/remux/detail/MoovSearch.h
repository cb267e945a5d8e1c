#pragma once

#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/Bytes.h"

namespace tarn {

// Searches in a whole `moov` in memory, which requireEditable has found fit for being edited. Boxes beside the
// way are stepped over whatever their header: 64-bit sizes, sizes of 0 and types that are no text.

/// Where the boxes of this type begin, from `start` up to `end`, one level.
std::vector<size_t> findBoxes(ByteView moov, std::string_view type, size_t start, size_t end);

/// The first of them.
std::optional<size_t> findFirstBox(ByteView moov, std::string_view type, size_t start, size_t end);

/// The first `trak` whose handler is "vide".
std::optional<size_t> findVideoTrak(ByteView moov);

}  // namespace tarn
