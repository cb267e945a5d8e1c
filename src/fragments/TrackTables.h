#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <vector>

#include "fragments/Runs.h"
#include "fragments/SampleGroups.h"
#include "movie/MovieTree.h"
#include "platform/Bytes.h"

namespace tarn {

/// A sample of a track.
struct TrackSample {
  uint64_t offset = 0;            ///< of its first byte in the source file
  uint32_t size = 0;              ///< bytes
  uint32_t duration = 0;          ///< to the decoding time of the next one, track timescale
  int64_t compositionOffset = 0;  ///< track timescale; fits 32 bits with a sign
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

  /// Those of an `stbl`. Samples that no chunk holds are left out; samples after the last entry of the `stts` last as
  /// long as the one before them, those after the last entry of the `ctts` have no offset. Counts are held against
  /// the bytes that are there. Throws MovieError: damaged, for a missing table and for tables that contradict each
  /// other.
  static TrackTables read(const MovieBox& stbl);

  /// Adds a sample. One that begins where the last one ends, under the same description, joins its chunk. Throws
  /// MovieError: doesNotFit.
  void append(const TrackSample& sample);
  /// Says which groups the samples from `firstSample` (0-based) on belong to; see SampleGroups::append. Samples that
  /// are not there are passed over.
  void appendGroups(uint64_t firstSample, ByteView sbgp, std::optional<ByteView> sgpd);
  /// Forgets all but the first so many samples; a chunk may be half kept.
  void truncate(uint64_t samples);
  /// Lets the last sample last so long. There must be one.
  void setLastDuration(uint32_t ticks);

  uint64_t sampleCount() const { return durations_.size(); }
  /// Sum of the durations, track timescale.
  uint64_t duration() const { return decodeTime(sampleCount()); }
  /// The sum of the durations of the samples before this one, track timescale.
  uint64_t decodeTime(uint64_t sample) const;
  /// Of the last sample; 0 without one.
  uint32_t lastDuration() const { return durations_.isEmpty() ? 0 : durations_.last(); }
  /// The number of samples that are decoded before this time, track timescale.
  uint64_t samplesDecodedAhead(uint64_t time) const;

  /// What is composed when, track timescale.
  struct Composition {
    int64_t start = 0;  ///< the smallest composition time
    int64_t end = 0;    ///< of the sample that ends last, which lasts as long as it is decoded
  };
  Composition composition() const;
  /// The composition time of each sample (ISO/IEC 14496-12 8.6.1.3), offsets taken as signed ones, track timescale.
  /// Throws MovieError: doesNotFit for more samples than should be listed.
  std::vector<int64_t> compositionTimes() const;

  /// Which samples are sync samples.
  const Runs<bool>& syncs() const { return syncs_; }

  /// The number of samples, counted from the first one, that lie whole before `end` in the file.
  uint64_t samplesAheadOf(uint64_t end) const;
  /// The end of the sample that reaches farthest in the file; 0 without samples.
  uint64_t farthestEnd() const;

  /// Calls with the place and the size in bytes of each chunk, in order.
  void forEachChunk(const std::function<void(uint64_t offset, uint64_t size)>& visit) const;
  /// Lets each chunk begin at `place` of where it begins now.
  void moveChunks(const std::function<uint64_t(uint64_t offset)>& place);

  /// Puts `stts`, `ctts`, `stsz`, `stsc`, `stco` or `co64`, `stss`, `sdtp`, `sbgp` and grown `sgpd` boxes into an
  /// `stbl`, in the place of those that are there; a box of a kind that no sample needs goes. An `stz2` stays one if it
  /// can, and a `co64` stays one; there is one also if an offset does not fit an `stco`. An `stdp`, `padb`
  /// or `subs` says no more of samples that are gone. Other boxes stay. Throws an Error for a table that does not fit
  /// its box.
  void writeTo(MovieBox& stbl) const;
  /// Puts the places of the chunks alone: as `co64` if they are long or there is one, else as `stco`, which must be
  /// able to hold them.
  void writeOffsetsTo(MovieBox& stbl, bool areLong) const;

 private:
  struct ChunkKind {
    uint32_t samples;
    uint32_t description;
    bool operator==(const ChunkKind&) const = default;
  };

  void readTimes(const MovieBox& stbl);
  void readSizes(const MovieBox& stbl);
  void readChunks(const MovieBox& stbl);
  void readFlags(const MovieBox& stbl);
  /// Calls `visit(chunk, offset, size, samples)` with samples of one size in a row, until it returns false.
  template <typename Visit>
  void visitSamples(Visit visit) const;
  uint64_t endOfLastChunk() const;

  // All are as long as there are samples.
  Runs<uint32_t> durations_;
  Runs<int32_t> offsets_;
  Runs<uint32_t> sizes_;
  Runs<bool> syncs_;
  Runs<uint8_t> dependencies_;
  SampleGroups groups_;

  std::deque<uint64_t> chunkOffsets_;
  Runs<ChunkKind> chunkKinds_;
  std::optional<uint64_t> nextInChunk_;  ///< where a sample begins that joins the last chunk, if that is known

  uint8_t offsetVersion_ = 0;  ///< of the `ctts`
  uint32_t compactBits_ = 0;   ///< of each size in the `stz2`; 0: it is an `stsz`
};

/// Writes the tables of each `trak` of a `moov`, in order, as TrackTables::writeTo does. Throws MovieError: damaged for
/// a track without an `stbl`.
void putTables(MovieBox& moov, const std::vector<TrackTables>& tables);
/// The same of the places of the chunks alone, as TrackTables::writeOffsetsTo does.
void putChunkOffsets(MovieBox& moov, const std::vector<TrackTables>& tables, bool areLong);

}  // namespace tarn
