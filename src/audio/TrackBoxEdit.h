#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "mp4/ChunkOffsetTable.h"
#include "platform/Bytes.h"

namespace tarn {

/// A `trak` in memory, and what a track needs to stand in another file. Boxes are found as BufferBoxWalker finds them,
/// by 32-bit sizes. A box that is missing or too short for its fields reads as 0 and is not edited, which the log tells
/// of; what cannot be true or cannot be expressed throws AudioTrackReplacerError::corruptedMP4.
class TrakBuffer {
 public:
  /// The whole box, its 8-byte header included.
  explicit TrakBuffer(Bytes trak) : bytes_(std::move(trak)) {}

  ByteView bytes() const { return bytes_; }

  /// Of the `tkhd` (ISO/IEC 14496-12 8.3.2).
  uint32_t extractTrackID() const;
  uint64_t extractTkhdDuration() const;  ///< movie timescale
  void updateTrackID(uint32_t newTrackID);
  void updateTkhdDuration(uint64_t newDuration);  ///< a 32-bit field takes what fits it

  /// Cuts out the first `edts` (ISO/IEC 14496-12 8.6.5).
  void stripEditList();

  /// Makes the `stts` (ISO/IEC 14496-12 8.6.1.2) a single row, where that keeps the track's duration exactly.
  void normalizeAudioStts();

  /// Corrects the first `stco`, or else the first `co64`, as ChunkOffsetTable::moved does.
  void moveChunkOffsets(std::span<const MediaMove> moves);

 private:
  struct BoxRange {
    size_t offset;
    size_t size;  ///< at most what the buffer holds
  };

  std::optional<BoxRange> findBoxInData(std::string_view type) const;
  ByteView view(const BoxRange& range) const { return bytes().subspan(range.offset, range.size); }
  std::span<uint8_t> edit(const BoxRange& range) { return std::span(bytes_).subspan(range.offset, range.size); }
  void replaceBox(const BoxRange& old, ByteView replacement);
  void updateParentBoxSizes(size_t changedBoxStart, int64_t sizeDiff);

  Bytes bytes_;
};

/// A whole `mvhd` (ISO/IEC 14496-12 8.2.2) in memory. A field that is not there is not edited.
class MvhdBuffer {
 public:
  explicit MvhdBuffer(Bytes mvhd) : bytes_(std::move(mvhd)) {}

  ByteView bytes() const { return bytes_; }

  uint32_t extractMvhdTimescale() const;  ///< ticks per second; 1000 where there is none
  void updateMvhdNextTrackID(uint32_t nextTrackID);
  void updateMvhdDuration(uint64_t newDuration);  ///< a 32-bit field takes what fits it

 private:
  Bytes bytes_;
};

}  // namespace tarn
