#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "parameters/NALCodec.h"
#include "parameters/ParameterSets.h"
#include "parameters/detail/ParameterSetCollector.h"
#include "parameters/detail/SegmentList.h"

namespace tarn {

/// What a sample must look like to vote for a length size.
struct VoteRules {
  uint32_t smallestLength;  ///< of the first NAL unit
  bool checksType;          ///< the first NAL unit's type must be one that begins a picture's data, 1 to 12
};

/// How a scan reads that is made for one purpose; see ParameterScan::Purpose.
struct ScanUse {
  const ParameterSetRules& sets;
  const SegmentRules& segments;
  size_t mostBytes;        ///< of distinct sets
  bool readsBehindSlices;  ///< from the start
  bool logsDamage;
  void (*reportStart)(size_t samples);  ///< null for silence
};

/// How a scan reads the streams of one codec, and in which words.
struct ScanRules {
  const NALCodec& codec;
  VoteRules vote;
  ScanUse extraction;
  ScanUse segments;
  ScanUse plan;
  std::string_view prefix;  ///< of the log lines
  bool warnsOfSeveralDescriptions;
  bool reportsVotes;
  void (*reportResult)(const ParameterSets& sets, size_t samples);
};

extern const ScanRules hevcScan;
extern const ScanRules avcScan;

}  // namespace tarn
