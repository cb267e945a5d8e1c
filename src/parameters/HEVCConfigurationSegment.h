#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "mp4/MP4SampleTableParser.h"
#include "parameters/ParameterSets.h"
#include "platform/FileManager.h"

namespace tarn {

struct VideoCodec;

/// A run of samples that are decoded with one collection of parameter sets: those in force at its first sync sample.
struct ConfigurationSegment {
  int64_t startSampleIndex = 0;      ///< 0-based
  int64_t endSampleIndex = 0;        ///< 0-based, inclusive
  int64_t firstSyncSampleIndex = 0;  ///< 0-based
  ParameterSets sets = {};
  std::string fingerprint = {};  ///< 64 lower-case hexadecimal digits

  int64_t sampleCount() const { return endSampleIndex - startSampleIndex + 1; }
};

using AVCConfigurationSegment = ConfigurationSegment;

/// Divides a track's samples into segments. Only the fronts of the sync samples are read, as far as the first slice, so
/// a segment begins at a sync sample alone. A sync sample without sets goes on with those in force; SegmentList tells
/// what else a sample may carry. Sets that come again after others begin a segment again. Moves the file's position. No
/// state.
///
/// `syncSamples` are the track's sync samples in order, `nalLengthSize` is that of the samples' length prefixes in
/// bytes, `totalSampleCount` counts all samples of the track, `ofSampleEntry` are the sets in force at the start.
/// Throws an Error of the domain "HEVCConfigurationSegment" ("AVCConfigurationSegment") if there is no sync sample,
/// and where the segments hold more than any real stream has. A damaged sample is no failure: what comes before the
/// damage counts.
std::vector<ConfigurationSegment> detectSegments(FileHandle& file, std::span<const SampleInfo> syncSamples,
                                                 int nalLengthSize, int64_t totalSampleCount,
                                                 const ParameterSets& ofSampleEntry, const VideoCodec& codec);

/// The same under its old names.
class HEVCConfigurationSegmentDetector {
 public:
  static std::vector<ConfigurationSegment> detectSegments(FileHandle& file, std::span<const SampleInfo> syncSamples,
                                                          int nalLengthSize, int64_t totalSampleCount,
                                                          const ParameterSets& ofSampleEntry = {});
};

class AVCConfigurationSegmentDetector {
 public:
  static std::vector<AVCConfigurationSegment> detectSegments(FileHandle& file, std::span<const SampleInfo> syncSamples,
                                                             int nalLengthSize, int64_t totalSampleCount,
                                                             const ParameterSets& ofSampleEntry = {});
};

}  // namespace tarn
