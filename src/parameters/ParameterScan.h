#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <vector>

#include "mp4/MP4BoxUtils.h"
#include "mp4/MP4SampleTableParser.h"
#include "parameters/HEVCConfigurationSegment.h"
#include "parameters/ParameterSets.h"
#include "parameters/VideoCodec.h"
#include "parameters/detail/ParameterSetCollector.h"
#include "platform/FileManager.h"

namespace tarn {

struct ScanUse;

/// The parameter sets that the sync samples of a video track carry. The sample table is parsed once and each sync
/// sample is walked once; then it answers for the stream as a whole, for each sample and for the segments. A set that
/// many samples carry is kept once.
///
/// The constructors throw what the sample table parser throws. Reading throws NALUnitParserError::tooManyParameterSets
/// alone: a damaged sample is skipped, and what was found before the damage counts.
class ParameterScan {
 public:
  /// Which sets are taken, and what the log hears.
  enum class Purpose {
    extraction,  ///< all; the log is told of sets and of damage
    segments,    ///< all
    plan,        ///< those that a decoder can read and a sample entry can hold
  };

  /// Scans a track whose sample table has been parsed, or samples that the caller has without a table.
  ParameterScan(const VideoCodec& codec, Purpose purpose, MP4SampleTableParser table);
  ParameterScan(const VideoCodec& codec, Purpose purpose, std::vector<SampleInfo> syncSamples);

  ParameterScan(ParameterScan&&) = default;

  /// The extraction from the first video track of a file, read. Throws what NALUnitParser::extractParameterSets throws.
  static ParameterScan ofFile(FileManager& files, const Path& path, const VideoCodec& codec);

  const MP4SampleTableParser& table() const { return table_; }
  const std::vector<SampleInfo>& syncSamples() const { return samples_; }

  /// What the first sync samples vote for, in bytes; see NALUnitParser.
  int detectNALLengthSize(FileHandle& file) const;

  /// Reads the front of each sync sample: as far as the first slice, for an extraction as far as the codec's sets may
  /// stand. To be called once. `nalLengthSize` is that of the samples' length prefixes in bytes; the function may name
  /// one for each sample, and nothing for a sample that is not looked at.
  void read(FileHandle& file, int nalLengthSize);
  void read(FileHandle& file, const std::function<std::optional<int>(const SampleInfo&)>& nalLengthSize);

  /// Reads on where the first reading met a slice.
  void readBehindSlices(FileHandle& file);

  /// The distinct sets of all samples.
  const ParameterSets& sets() const { return collector_.sets(); }

  /// The same for the only sample entry of a stream. Throws noParameterSetsFound.
  ExtractedParameterSets extract() const;

  /// On which side of the first slice a set stands.
  enum class Side { aheadOfSlices, both };

  /// The sets of one sync sample, by its place in syncSamples(); only the four lists are filled. Those that have been
  /// read count.
  ParameterSets carriedBy(size_t sample, Side side = Side::both) const;
  bool isRead(size_t sample) const { return readings_[sample].carried != nullptr; }
  bool hasRead() const { return !carried_.empty(); }  ///< one sample at least
  /// True if both samples carry the same units in the same order.
  bool carryTheSame(size_t sample, size_t other) const { return readings_[sample].carried == readings_[other].carried; }

  /// The segments of all samples of the track. `entrySets` gives the sets of the sample entry that describes a sync
  /// sample, and is asked for those that have been read. Throws as HEVCConfigurationSegmentDetector says, for a plan
  /// with the domain "VideoPlan".
  std::vector<ConfigurationSegment> segments(
      int64_t totalSampleCount, Side side,
      const std::function<const ParameterSets&(const SampleInfo& sample)>& entrySets) const;

 private:
  /// What a sample carries: the numbers of its distinct sets, those before the first slice in front.
  struct Carried {
    std::vector<uint32_t> sets;
    size_t aheadOfSlices = 0;

    auto operator<=>(const Carried&) const = default;
  };

  struct Reading {
    const Carried* carried = nullptr;  ///< null for a sample that is not looked at
    uint32_t position = 0;             ///< in the sample, where the walk stands
    int nalLengthSize = 4;
  };

  void readOn(FileHandle& file, size_t sample, bool stopsAtSlice);
  const Carried* keep(Carried carried);

  const VideoCodec& codec_;
  const ScanUse& use_;
  MP4SampleTableParser table_;
  std::vector<SampleInfo> samples_;
  std::vector<Reading> readings_;  // of each sample
  int nalLengthSize_ = 4;
  ParameterSetCollector collector_;
  std::vector<size_t> lastSample_;  // that carries a set, by the set's number, counted from 1
  std::set<Carried> carried_;       // each once
  size_t carriedSets_ = 0;
};

}  // namespace tarn
