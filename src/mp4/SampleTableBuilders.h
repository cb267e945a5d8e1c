#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "mp4/MP4SampleTableParser.h"
#include "platform/Bytes.h"
#include "platform/Error.h"

namespace tarn {

/// Whole boxes of a sample table (ISO/IEC 14496-12 8.6.1, 8.7), version and flags 0. All throw an Error of the domain
/// "SampleTable" where the box would not fit its 32-bit size field.

/// `stsz`, in the compact form where all sizes are equal.
Bytes buildStszBox(std::span<const uint32_t> sampleSizes);

/// An entry of an `stts` (ISO/IEC 14496-12 8.6.1.2): samples that each last `sampleDelta` ticks of the track's
/// timescale.
struct TimeToSampleEntry {
  uint32_t sampleCount = 0;
  uint32_t sampleDelta = 0;
};
Bytes buildSttsBox(std::span<const TimeToSampleEntry> entries);

/// `stts` of one entry; the duration is in the track's timescale.
Bytes buildSimpleSttsBox(uint32_t sampleCount, uint32_t sampleDuration);

/// `stsc` of one entry, which says that each chunk holds one sample of the first description.
Bytes buildSimpleStscBox();

Bytes buildStscBox(std::span<const SampleToChunkEntry> entries);

/// True for an offset that an `stco` cannot hold.
inline bool needs64Bits(uint64_t offset) {
  return offset >> 32 != 0;
}

/// `stco`, or `co64` as soon as one offset does not fit 32 bits.
Bytes buildChunkOffsetBox(std::span<const uint64_t> offsets);

/// `co64` if asked for, else `stco`, which all offsets must fit.
Bytes buildChunkOffsetBox(std::span<const uint64_t> offsets, bool isLong);

/// The failure that all of a sample table's own failures are: domain "SampleTable", code -1.
Error sampleTableError(std::string description);

}  // namespace tarn
