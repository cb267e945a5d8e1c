#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace tarn {

/// How far media moved in the file: every chunk offset from `movesFrom` on moves by `delta` bytes, those below stay.
struct ChunkOffsetShift {
  int64_t delta = 0;
  uint64_t movesFrom = 0;
};

/// Corrects the chunk offsets (ISO/IEC 14496-12 8.7.5) of a `moov` in memory after media moved. Tables keep their
/// kind and their length, so nothing else in the buffer moves. Never fails: a table that promises more entries than its
/// box or the buffer holds is corrected as far as they go.
class ChunkOffsetTable {
 public:
  /// All tables of all tracks; `moov` begins with the box's 8-byte header. A 32-bit entry whose new value does not fit
  /// is clamped, which the log tells of; a 64-bit entry wraps.
  static void adjustAllInMoov(std::span<uint8_t> moov, const ChunkOffsetShift& shift);

  /// One `stco` or `co64` that begins at `at`.
  static void adjustTableInPlace(std::span<uint8_t> moov, size_t at, const ChunkOffsetShift& shift, bool is64Bit);
};

}  // namespace tarn
