#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "mp4/MP4BoxUtils.h"
#include "mp4/detail/SampleTableReading.h"
#include "platform/FileManager.h"

namespace tarn {

/// Where one sample's bytes are in the file.
struct SampleLocation {
  uint64_t offset = 0;
  uint32_t size = 0;
};

/// Finds the samples of a track in its file (ISO/IEC 14496-12 8.7) without an entry for each: sizes and chunk offsets
/// are held as the file has them. Serves one thread.
class SampleLocations {
 public:
  /// Reads `stsz` or else `stz2`, `stsc`, and `stco` or else `co64` of the `stbl`. Moves the file's position. Throws an
  /// Error of the domain "SampleTable" or a ByteArrayError if they cannot be read.
  SampleLocations(FileHandle& file, const MP4BoxInfo& stbl);

  /// Samples that the `stsz` promises, and how many of them, from the first on, have a chunk.
  uint32_t count() const { return sizes_.count; }
  uint32_t countInChunks() const;

  /// The bytes of a sample below count().
  uint32_t sizeOf(uint32_t sample) const { return sizes_.fixedSize != 0 ? sizes_.fixedSize : sizes_.sizes[sample]; }
  bool haveOneSize() const { return sizes_.fixedSize != 0; }
  uint64_t fileSize() const { return fileSize_; }

  /// How many samples, from the first on, have a chunk and are whole in the file.
  uint32_t countInFile() const { return countInFile_; }
  /// How many samples have no chunk, or are not whole in the file. Quick if none is.
  uint32_t countMissing() const;

  /// The place of a sample, 0-based; quick for one at or after the last one asked for. Throws sampleTableError for a
  /// sample that does not exist, has no chunk, or is not whole in the file.
  SampleLocation locate(uint32_t sample);

  /// Chunks in a row that hold samples, and what describes them; never empty runs.
  const std::vector<ChunkRun>& runs() const { return runs_; }

  /// Walks the samples that have a chunk, in order, some at a time. The locations must outlive it and stay where they
  /// are.
  class Cursor {
   public:
    explicit Cursor(const SampleLocations& locations);

    /// Where the next sample begins; that may be past the end of the file.
    uint64_t offset() const { return offset_; }
    /// How many samples, the next one included, are left in its chunk; 0 after the last one.
    uint32_t leftInChunk() const { return left_; }
    /// Steps over at most this many as are left in the chunk; samples of different sizes one at a time.
    void advance(uint32_t samples);

   private:
    void enterChunk();

    const SampleLocations& locations_;
    size_t run_ = 0;
    uint64_t chunkInRun_ = 0;
    uint32_t sample_ = 0;
    uint32_t left_ = 0;
    uint64_t offset_ = 0;
  };

 private:
  uint32_t findCountInFile() const;

  SampleSizes sizes_;
  std::vector<uint64_t> chunkOffsets_;
  std::vector<ChunkRun> runs_;
  uint64_t fileSize_ = 0;
  uint32_t countInFile_ = 0;

  /// The sample found last.
  struct Place {
    uint64_t chunk;
    uint32_t sample;
    uint64_t offset;
  };
  std::optional<Place> last_;
};

}  // namespace tarn
