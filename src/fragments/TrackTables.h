#pragma once

#include <cstdint>
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

  uint64_t sampleCount() const;
  /// Sum of the durations, track timescale.
  uint64_t duration() const;
  /// The number of samples, counted from the first one, that lie whole ahead of `end` in the file.
  uint64_t samplesAheadOf(uint64_t end) const;

  /// Puts `stts`, `ctts`, `stsz`, `stsc`, `stco` or `co64`, `stss`, `sdtp` and `sbgp` boxes into an `stbl`, in the
  /// place of those that are there; a box of a kind that no sample needs goes. A `stz2` stays one if it can. Other
  /// boxes stay.
  void writeTo(MovieBox& stbl) const;
};

}  // namespace tarn
