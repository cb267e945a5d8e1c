#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "parameters/NALCodec.h"
#include "parameters/PictureSize.h"
#include "platform/Bytes.h"

namespace tarn {

/// Distinct parameter sets of one stream, in first-seen order.
struct ParameterSets {
  std::vector<Bytes> vpsArray;  ///< NAL units as stored: header and emulation prevention bytes included; HEVC only
  std::vector<Bytes> spsArray;
  std::vector<Bytes> ppsArray;
  std::vector<Bytes> spsRbspArray;  ///< for each SPS, in the same order: without emulation prevention; the HEVC header
                                    ///< of 2 bytes is kept, the AVC header of 1 byte dropped
  std::vector<PictureSize> spsResolutions;     ///< of each SPS whose size could be read, so not aligned with spsArray
  bool requiresMultipleSampleEntries = false;  ///< an identifier came again with other bytes
  bool hasResolutionChanges = false;           ///< two SPS state different sizes
  bool isCollectionComplete = false;           ///< each kind that the codec has was found
};

using HEVCParameterSets = ParameterSets;
using AVCParameterSets = ParameterSets;

/// The sets of a whole stream, for its sample entry.
struct ExtractedParameterSets {
  ParameterSets sets;
  int nalLengthSize = 4;  ///< of the samples' length prefixes, in bytes: 4 or 2
};

inline constexpr std::array allParameterSetKinds{ParameterSetKind::vps, ParameterSetKind::sps, ParameterSetKind::pps};

/// The units of one kind; `Sets` is ParameterSets, const or not.
template <typename Sets>
auto& unitsOf(Sets& sets, ParameterSetKind kind) {
  if (kind == ParameterSetKind::vps) return sets.vpsArray;
  return kind == ParameterSetKind::sps ? sets.spsArray : sets.ppsArray;
}

std::string_view nameOf(ParameterSetKind kind);

/// True if there is at least one set of each kind that the codec has.
bool isComplete(const ParameterSets& sets, const NALCodec& codec);

/// "no VPS, no PPS"; empty for complete sets.
std::string missingKinds(const ParameterSets& sets, const NALCodec& codec);

/// True if all `sets` are among `others`, byte for byte.
bool areAmong(const ParameterSets& sets, const ParameterSets& others);

/// A decoder configuration record holds no longer parameter set (ISO/IEC 14496-15 5.3.3.1.2, 8.3.3.1.2), in bytes.
inline constexpr size_t longestStoredSet = 65535;

/// Takes out the sets that a record cannot hold. The log tells of them.
void dropTooLongSets(ParameterSets& sets);

}  // namespace tarn
