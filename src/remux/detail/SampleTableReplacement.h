#pragma once

#include <cstdint>
#include <vector>

#include "mp4/BoxHeader.h"
#include "platform/Bytes.h"

namespace tarn {

// New boxes in the sample table of the video track of a `moov` in memory; see MP4Remuxer.

BoxHeader findStblBoxInMoov(ByteView moov);
Bytes extractStsdBoxFromMoov(ByteView moov);
Bytes buildMoovWithMultipleEntries(ByteView originalMoov, const std::vector<Bytes>& newSampleEntries,
                                   ByteView newStscBox, ByteView newChunkOffsetBox);
Bytes replaceBoxesInStbl(ByteView stbl, ByteView newStsd, ByteView newStsc, ByteView newChunkOffset);

/// The size that an `stbl` gets when new boxes of these sizes take the places of its old ones, in bytes.
uint64_t sizeOfNewStbl(ByteView stbl, uint64_t stsd, uint64_t stsc, uint64_t chunkOffsets);

}  // namespace tarn
