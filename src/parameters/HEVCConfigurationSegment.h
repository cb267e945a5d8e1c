#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "mp4/MP4SampleTableParser.h"
#include "platform/Bytes.h"
#include "platform/FileManager.h"

namespace tarn {

/// A run of samples that share one set of parameter sets, those of the sync sample with which it begins. All sets are
/// empty where that sample carries none.
struct ConfigurationSegment {
  int64_t startSampleIndex = 0;  ///< 0-based
  int64_t endSampleIndex = 0;    ///< 0-based, inclusive
  std::vector<Bytes> vpsSet;     ///< NAL units as stored: header and emulation prevention bytes included; HEVC only
  std::vector<Bytes> spsSet;
  std::vector<Bytes> ppsSet;
  std::vector<Bytes> spsRbspSet;  ///< for each SPS, in the same order: without emulation prevention; the HEVC header of
                                  ///< 2 bytes is kept, the AVC header of 1 byte dropped
  std::string fingerprint;        ///< 64 lower-case hexadecimal digits

  int64_t sampleCount() const { return endSampleIndex - startSampleIndex + 1; }
};

using AVCConfigurationSegment = ConfigurationSegment;

/// Divides a track's samples into runs. Only the fronts of the sync samples are read, as far as the first slice, so a
/// run begins at a sync sample alone. The runs cover all samples; neighbours differ, and sets that come again after
/// others begin a run again. Moves the file's position. No state.
///
/// `syncSamples` are the track's sync samples in order, `nalLengthSize` is that of the samples' length prefixes in
/// bytes, `totalSampleCount` counts all samples of the track. Throws an Error of the domain "HEVCConfigurationSegment"
/// ("AVCConfigurationSegment") where there is no sync sample, and where the runs hold more than any real stream has. A
/// damaged sample is no failure: what stands ahead of the damage counts.
class HEVCConfigurationSegmentDetector {
 public:
  static std::vector<ConfigurationSegment> detectSegments(FileHandle& file, std::span<const SampleInfo> syncSamples,
                                                          int nalLengthSize, int64_t totalSampleCount);
};

class AVCConfigurationSegmentDetector {
 public:
  static std::vector<AVCConfigurationSegment> detectSegments(FileHandle& file, std::span<const SampleInfo> syncSamples,
                                                             int nalLengthSize, int64_t totalSampleCount);
};

}  // namespace tarn
