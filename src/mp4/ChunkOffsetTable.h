#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "platform/Bytes.h"

namespace tarn {

/// How far media moved in the file: every chunk offset from `movesFrom` on moves by `delta` bytes, those below stay.
struct ChunkOffsetShift {
  int64_t delta = 0;
  uint64_t movesFrom = 0;
};

/// A stretch of a file that was copied to another place: the bytes from `begin` up to `end` begin at `newBegin` there.
struct MediaMove {
  uint64_t begin = 0;
  uint64_t end = 0;
  uint64_t newBegin = 0;
};

/// Where an offset is after the moves, which are ascending and do not overlap; nothing if it is in none of them.
/// The end of a stretch belongs to it, for a chunk without a byte.
std::optional<uint64_t> newPlace(uint64_t offset, std::span<const MediaMove> moves);

/// Corrects chunk offsets (ISO/IEC 14496-12 8.7.5) after media moved. A table that promises more entries than its box
/// or the buffer holds is corrected as far as they go.
class ChunkOffsetTable {
 public:
  // These work on a `moov` in memory. Tables keep their kind and their length, so nothing else in the buffer moves.
  // Never fails.

  /// All tables of all tracks; `moov` begins with the box's 8-byte header. A 32-bit entry whose new value does not fit
  /// is clamped, which the log tells of; a 64-bit entry wraps.
  static void adjustAllInMoov(std::span<uint8_t> moov, const ChunkOffsetShift& shift);

  /// One `stco` or `co64` that begins at `at`.
  static void adjustTableInPlace(std::span<uint8_t> moov, size_t at, const ChunkOffsetShift& shift, bool is64Bit);

  /// A whole `stco` or `co64` after its chunks moved, each with the stretch that holds it. An `stco` becomes a `co64`
  /// as soon as one new value does not fit 32 bits; the entries that were missing then stay missing. `moves` are
  /// ascending and do not overlap; their new ends fit 64 bits. Nothing if a chunk is in none of them.
  struct Moved {
    Bytes box;
    bool isPromoted = false;
  };
  static std::optional<Moved> moved(ByteView table, std::span<const MediaMove> moves);
};

}  // namespace tarn
