#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "movie/MovieTree.h"
#include "mp4/SampleTableBuilders.h"

namespace tarn {

/// A sample of a track.
struct TrackSample {
  uint64_t offset = 0;            ///< of its first byte in the source file
  uint32_t size = 0;              ///< bytes
  uint32_t duration = 0;          ///< to the decoding time of the next one, track timescale
  int64_t compositionOffset = 0;  ///< track timescale; fits 32 bits, signed or not
  uint32_t description = 1;       ///< 1-based index into the `stsd`
  bool isSync = true;
  uint8_t dependencies = 0;  ///< as `sdtp` packs them (ISO/IEC 14496-12 8.6.4.2); 0: unknown
};

/// The sample table of a track (ISO/IEC 14496-12 8.5 to 8.9) as runs in memory, about as large as the boxes: read from
/// a file, lengthened and shortened at its end in decode order, and written as boxes again. Serves one thread.
class TrackTables {
 public:
  /// No samples yet.
  TrackTables() = default;

  /// Those of an `stbl`. Counts are held against the bytes that are there. Throws MovieError: damaged, for tables that
  /// contradict each other.
  static TrackTables read(const MovieBox& stbl);

  /// Adds a sample. One that begins where the last one ends, under the same description, joins its chunk.
  void append(const TrackSample& sample);
  /// Forgets all but the first so many samples; a chunk may be half kept.
  void truncate(uint64_t samples);
  /// Lets the last sample last so long. There must be one.
  void setLastDuration(uint32_t ticks);
  /// Puts the samples from `firstSample` on (0-based), which nobody has grouped yet, into the groups that an `sbgp` of
  /// a fragment names; `sgpd` is the one of the same kind beside it, in which indexes above 0x10000 count (ISO/IEC
  /// 14496-12 8.9.4). Both are whole boxes with 8-byte headers. Throws MovieError: damaged.
  void appendGroups(uint64_t firstSample, ByteView sbgp, std::optional<ByteView> sgpd);

  uint64_t sampleCount() const;
  /// Sum of the durations, track timescale.
  uint64_t duration() const;
  /// Of the last sample; 0 without one.
  uint32_t lastDuration() const;
  /// The number of samples, counted from the first one, that lie whole ahead of `end` in the file.
  uint64_t samplesAheadOf(uint64_t end) const;

  /// What is composed when, by track time.
  struct Composition {
    int64_t start = 0;  ///< the smallest composition time
    int64_t end = 0;    ///< of the sample that ends last, which lasts as long as it is decoded
  };
  Composition composition() const;

  /// Calls with the place and the size in bytes of each chunk, in order.
  void forEachChunk(const std::function<void(uint64_t offset, uint64_t size)>& visit) const;
  /// Lets each chunk begin at `place` of where it begins now.
  void moveChunks(const std::function<uint64_t(uint64_t offset)>& place);

  /// Puts `stts`, `ctts`, `stsz`, `stsc`, `stco` or `co64`, `stss`, `sdtp` and `sbgp` boxes into an `stbl`, in the
  /// place of those that are there; a box of a kind that no sample needs goes. A `stz2` stays one if it can. Other
  /// boxes stay. `hasLongOffsets` asks for a `co64`; there is one anyway if an offset does not fit an `stco`.
  void writeTo(MovieBox& stbl, bool hasLongOffsets = false) const;
};

}  // namespace tarn
