#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/Bytes.h"

namespace tarn {

// Sizes of the boxes around an edit of a `moov` in memory; see MP4Remuxer.

size_t findStsdOffsetInTrak(ByteView moov, size_t trakOffset);
void updateParentBoxSizes(std::span<uint8_t> moov, int64_t sizeDelta, size_t videoTrakOffset);
void updateParentBoxSizesForStbl(std::span<uint8_t> moov, int64_t sizeDelta, size_t videoTrakOffset);

}  // namespace tarn
