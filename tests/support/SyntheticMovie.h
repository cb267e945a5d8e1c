#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "platform/Bytes.h"

namespace tarn::test {

/// An audio sample entry of version 0: fields, then the children.
Bytes audioSampleEntry(std::string_view type, uint32_t sampleRate, uint32_t channels, const Bytes& children = {});

/// An `esds` with these decoder specific bytes; none of them leaves the descriptor out.
Bytes esdsBox(uint8_t objectTypeIndication, const Bytes& specificInfo);

/// An `mp4a` entry of AAC with this AudioSpecificConfig.
Bytes aacSampleEntry(uint32_t sampleRate, uint32_t channels, const Bytes& config);

/// A track whose tables are written down as they stand. Row lists hold pairs: count and value, duration and media time.
struct SyntheticTrack {
  std::string handler = "soun";
  uint32_t timescale = 48000;
  Bytes sampleEntry = aacSampleEntry(48000, 2, {0x11, 0x90});
  std::vector<std::pair<uint32_t, uint32_t>> stts = {};
  std::vector<std::pair<uint32_t, int32_t>> ctts = {};
  std::vector<std::pair<uint64_t, int64_t>> edits = {};
  uint32_t samples = 0;  ///< sample i has i % 7 + 1 bytes of value i, or each these
  Bytes sample = {};
  uint32_t samplesPerChunk = 4;
  uint64_t mediaDuration = 0;  ///< of the `mdhd`
  bool longTimes = false;      ///< `mdhd` and `elst` in version 1
  uint32_t trackID = 1;
};

/// A file of an `mdat` and a `moov` with a movie duration of 0.
Bytes syntheticMovie(const std::vector<SyntheticTrack>& tracks, uint32_t movieTimescale = 1000);

}  // namespace tarn::test
