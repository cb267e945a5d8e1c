#pragma once

#include <cstdint>

#include "platform/Bytes.h"

namespace tarn {

/// The size that an `stbl` gets when new boxes of these sizes take the places of its old ones, in bytes.
uint64_t sizeOfNewStbl(ByteView stbl, uint64_t stsd, uint64_t stsc, uint64_t chunkOffsets);

}  // namespace tarn
