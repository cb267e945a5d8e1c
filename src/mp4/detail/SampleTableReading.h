#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "mp4/MP4BoxUtils.h"
#include "mp4/MP4SampleTableParser.h"
#include "platform/FileManager.h"

namespace tarn {

// The boxes of a sample table that tell where the samples are (ISO/IEC 14496-12 8.7), read as the file has them. Each
// takes the `stbl`, moves the file's position, and throws an Error of the domain "SampleTable" or a ByteArrayError.

struct SampleSizes {
  uint32_t fixedSize = 0;       ///< bytes of each sample; 0 if they differ
  uint32_t count = 0;           ///< samples of the track
  std::vector<uint32_t> sizes;  ///< bytes of each; empty if they are all equal
};
SampleSizes readSampleSizes(FileHandle& file, const MP4BoxInfo& stbl);

/// The same from the `stz2` with its sizes of 4, 8 or 16 bits (8.7.3.3).
SampleSizes readCompactSampleSizes(FileHandle& file, const MP4BoxInfo& stbl);

std::vector<SampleToChunkEntry> readSampleToChunk(FileHandle& file, const MP4BoxInfo& stbl);

struct ChunkOffsets {
  bool isLong = false;  ///< read from a `co64`
  std::vector<uint64_t> offsets;
};
ChunkOffsets readChunkOffsets(FileHandle& file, const MP4BoxInfo& stbl);

/// Chunks in a row that hold equally many samples of one description.
struct ChunkRun {
  uint64_t firstChunk = 0;  ///< 0-based
  uint64_t chunkCount = 0;
  int64_t firstSample = 0;  ///< 0-based
  uint32_t samplesPerChunk = 0;
  uint32_t sampleDescriptionIndex = 0;  ///< 1-based
};

/// The entries of an `stsc` over this many chunks. Chunks are counted as the entries are walked, whatever the first
/// entry's number. Entries that describe no chunk that exists are left out. Throws where entries are out of order or
/// promise more samples than 63 bits hold.
std::vector<ChunkRun> chunkRuns(std::span<const SampleToChunkEntry> entries, uint64_t chunkCount);

}  // namespace tarn
