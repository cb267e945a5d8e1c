#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <vector>

#include "mp4/ChunkOffsetTable.h"
#include "mp4/MP4BoxUtils.h"
#include "platform/Bytes.h"
#include "platform/Error.h"
#include "platform/FileManager.h"

namespace tarn {

/// An entry of an `stsc` (ISO/IEC 14496-12 8.7.4); both numbers are 1-based.
struct SampleToChunkEntry {
  uint32_t firstChunk = 0;
  uint32_t samplesPerChunk = 0;
  uint32_t sampleDescriptionIndex = 0;

  bool operator==(const SampleToChunkEntry&) const = default;
};

/// Where one sample is.
struct SampleInfo {
  int64_t index = 0;        ///< 0-based
  uint64_t fileOffset = 0;  ///< of its first byte
  uint32_t size = 0;        ///< bytes
  bool isSyncSample = false;

  bool operator==(const SampleInfo&) const = default;
};

/// A run of samples that share a sample description.
struct SampleDescriptionSegment {
  int64_t startSampleIndex = 0;   ///< 0-based
  int64_t endSampleIndex = 0;     ///< 0-based, inclusive
  uint32_t descriptionIndex = 1;  ///< 1-based index into the `stsd`
};

/// One track's sample table (ISO/IEC 14496-12 8.7), read once and then only asked; an object serves one thread. A
/// failure is an Error of the domain "SampleTable" or, where a box ends before its counts do, a ByteArrayError; nothing
/// of a failed parse is to be used.
class MP4SampleTableParser {
 public:
  /// Reads `stsz` or else `stz2`, `stsc`, `stco` or else `co64`, and `stss` among the box's children; of an `stss` the
  /// numbers after the last sample are left out. To be called once. Moves the file's position.
  void parseSampleTable(FileHandle& file, const MP4BoxInfo& stbl);

  /// One sample. Throws "Sample index out of range", "Sample offset out of range", and "Could not compute offset for
  /// sample <index>" if there is no chunk.
  SampleInfo sampleInfo(int64_t index) const;

  /// All samples in order; the sync samples in order, which are all if there is no `stss`. Both throw as above, and
  /// for more samples than a list of them should hold.
  std::vector<SampleInfo> allSamples() const;
  std::vector<SampleInfo> syncSamplesOnly() const;

  /// The description indices that the `stsc` names, used or not.
  std::set<uint32_t> usedSampleDescriptionIndices() const;

  /// The description index, 1-based, of the chunk that holds the sample; nothing if no chunk does. Throws "Sample
  /// index out of range".
  std::optional<uint32_t> sampleDescriptionIndex(int64_t index) const;

  /// Whole `stsc` and `stco` or `co64` boxes for a layout in which each sample is a chunk of its own, offsets as in the
  /// file read. Segments must be sorted; a sample outside all of them gets description 1. Throw if there are no
  /// samples, and where the box would not fit its size field.
  Bytes rebuildStscBox(std::span<const SampleDescriptionSegment> segments) const;
  /// The box is a `co64` as soon as one offset does not fit 32 bits, as it is or after the shift that comes when the
  /// box is an `stco`.
  Bytes rebuildChunkOffsetBox(const ChunkOffsetShift& comingShift = {}) const;

  uint32_t sampleCount() const { return sampleCount_; }
  uint32_t sampleSize(size_t index) const { return fixedSize_ != 0 ? fixedSize_ : sampleSizes_[index]; }
  /// The bytes of the first `count` samples.
  uint64_t sizeOfFirst(size_t count) const {
    return fixedSize_ != 0 ? uint64_t{fixedSize_} * count : cumulativeSampleSizes_[count];
  }
  const std::vector<uint64_t>& chunkOffsets() const { return chunkOffsets_; }  ///< in the file
  const std::vector<SampleToChunkEntry>& sampleToChunk() const { return sampleToChunk_; }
  const std::vector<uint32_t>& syncSamples() const { return syncSamples_; }  ///< 1-based, ascending; empty means all
  const std::vector<int64_t>& chunkStartSampleIndex() const { return chunkStartSampleIndex_; }  ///< 0-based
  const std::vector<int64_t>& samplesInChunk() const { return samplesInChunk_; }

 private:
  void buildLookupTables();
  std::optional<size_t> chunkAtOrAhead(int64_t index) const;
  uint64_t sampleOffset(size_t index, size_t chunk) const;
  std::vector<uint64_t> sampleOffsets() const;
  bool isSync(size_t index) const;

  uint32_t sampleCount_ = 0;
  uint32_t fixedSize_ = 0;             // of each sample; 0 if they differ
  std::vector<uint32_t> sampleSizes_;  // empty if all are equal: 20 bytes may promise billions of samples
  std::vector<uint64_t> chunkOffsets_;
  std::vector<SampleToChunkEntry> sampleToChunk_;
  std::vector<uint32_t> syncSamples_;
  std::vector<uint64_t> cumulativeSampleSizes_;  // element i is the sum of the first i sizes; empty if all are equal
  std::vector<int64_t> chunkStartSampleIndex_;
  std::vector<int64_t> samplesInChunk_;
};

}  // namespace tarn
