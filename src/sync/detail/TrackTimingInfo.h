#pragma once

#include <cstdint>
#include <string>

namespace tarn {

/// The video track's timing facts.
struct TrackTimingInfo {
  int64_t firstDts = 0;     ///< always 0
  int64_t firstCts = 0;     ///< first composition offset, track timescale; 0 without a `ctts`
  int64_t minCts = 0;       ///< smallest composition offset, track timescale; 0 without a `ctts`
  uint32_t timescale = 0;   ///< of the `mdhd`; never 0
  int64_t duration = 0;     ///< of the `mdhd`, or else the sum of the `stts`; track timescale
  bool hasCtts = false;     ///< the `stbl` holds a `ctts`
  int cttsVersion = -1;     ///< -1 without a `ctts`, or when it cannot be read
  uint64_t cttsOffset = 0;  ///< in the file; 0 without a `ctts`
  uint64_t cttsSize = 0;    ///< bytes; 0 without a `ctts`
};

/// The audio track's timing facts.
struct AudioTrackTimingInfo {
  uint32_t trackTimescale = 0;  ///< of the `mdhd`; never 0
  int64_t duration = 0;         ///< of the `mdhd`, or else the sum of the `stts`; track timescale
  int64_t encoderDelay = 0;     ///< priming that counts, track timescale
  std::string codec;            ///< format of the first sample entry; "unknown" when it cannot be read
  int64_t firstSamplePTS = 0;   ///< always 0
};

}  // namespace tarn
