#pragma once

#include <cstdint>
#include <vector>

#include "mp4/MP4BoxUtils.h"
#include "platform/FileManager.h"

namespace tarn {

/// When one sample is decoded and composed, in ticks of the track's timescale.
struct SampleTime {
  int64_t decodeTime = 0;
  int64_t compositionTime = 0;
  uint32_t delta = 0;  ///< from its decode time to that of the next

  bool operator==(const SampleTime&) const = default;
};

/// The `stts` and `ctts` of a track (ISO/IEC 14496-12 8.6.1), held by entries: memory does not grow with the number of
/// samples. Composition offsets are signed in either version, as files use them.
class SampleTimes {
 public:
  /// Reads the boxes of the `stbl` of a track of this many samples. Entries after the last sample are dropped; samples
  /// after the last entry of the `stts` keep its delta, those after the last entry of the `ctts` have no offset.
  /// Moves the file's position. Throws an Error of the domain "SampleTable" if there is no entry for any sample and
  /// for decode times beyond 2^60, and a ByteArrayError where a box ends before its count does.
  SampleTimes(FileHandle& file, const MP4BoxInfo& stbl, uint32_t sampleCount);

  /// Samples in a row with one delta.
  struct Run {
    int64_t firstTime = 0;  ///< of decoding
    uint32_t first = 0;
    uint32_t count = 0;
    uint32_t delta = 0;
  };
  std::vector<Run> runs() const;

  /// The sum of all deltas.
  int64_t duration() const { return duration_; }
  int64_t smallestOffset() const { return smallestOffset_; }
  int64_t largestOffset() const { return largestOffset_; }

  /// The first sample, 0-based, that is decoded at this time or later, and the first whose delta reaches to this time
  /// or beyond; the number of samples if there is none.
  uint32_t firstDecodedFrom(int64_t time) const;
  uint32_t firstReaching(int64_t time) const;

  /// How many of the samples from `first` on and before `end` have a delta of 0.
  uint32_t countWithoutLength(uint32_t first, uint32_t end) const;

  bool operator==(const SampleTimes&) const = default;

  /// Walks the samples in decode order from one on. The times must outlive it and stay where they are.
  class Cursor {
   public:
    Cursor(const SampleTimes& times, uint32_t sample);

    uint32_t sample() const { return sample_; }
    SampleTime time() const;
    void advance();

   private:
    const SampleTimes& times_;
    uint32_t sample_;
    size_t deltaRun_;
    size_t offsetRun_;
    int64_t decodeTime_;
  };

 private:
  struct DeltaRun {
    int64_t firstTime;
    uint32_t firstSample;
    uint32_t delta;
    bool operator==(const DeltaRun&) const = default;
  };
  struct OffsetRun {
    uint32_t firstSample;
    int32_t offset;
    bool operator==(const OffsetRun&) const = default;
  };

  void readDeltas(FileHandle& file, const MP4BoxInfo& stbl);
  void readOffsets(FileHandle& file, const MP4BoxInfo& stbl);

  uint32_t sampleCount_;
  int64_t duration_ = 0;
  int64_t smallestOffset_ = 0;
  int64_t largestOffset_ = 0;
  // The first run begins at sample 0; a run ends where the next begins.
  std::vector<DeltaRun> deltas_;
  std::vector<OffsetRun> offsets_;
};

}  // namespace tarn
