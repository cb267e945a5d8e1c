#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "platform/Bytes.h"

namespace tarn {

/// nal_unit_type (ITU-T H.265 table 7-1, ITU-T H.264 table 7-1).
namespace hevcNALType {
inline constexpr uint8_t vps = 32;
inline constexpr uint8_t sps = 33;
inline constexpr uint8_t pps = 34;
inline constexpr uint8_t prefixSEI = 39;
inline constexpr uint8_t suffixSEI = 40;
}  // namespace hevcNALType
namespace avcNALType {
inline constexpr uint8_t sps = 7;
inline constexpr uint8_t pps = 8;
}  // namespace avcNALType

enum class ParameterSetKind { vps, sps, pps };

/// The identifier of a parameter set (ITU-T H.265 7.3.2.1 to 7.3.2.3, ITU-T H.264 7.3.2.1.1, 7.3.2.2), from its bytes
/// after the NAL header and without emulation prevention. Bits that are missing count as 0.
uint32_t parseHEVCParameterSetID(ParameterSetKind kind, ByteView payload);
uint32_t parseAVCParameterSetID(ParameterSetKind kind, ByteView payload);

/// How the NAL units of a codec look: all that reading parameter sets needs to know of it.
struct NALCodec {
  size_t headerSize;         ///< bytes
  size_t headerBytesInRbsp;  ///< of those, kept in ParameterSets::spsRbspArray
  int typeShift;             ///< nal_unit_type is (first byte >> typeShift) & typeMask
  uint8_t typeMask;
  uint8_t firstSliceType;  ///< both inclusive
  uint8_t lastSliceType;
  std::optional<uint8_t> vpsType;  ///< absent if the codec has no VPS
  uint8_t spsType;
  uint8_t ppsType;
  bool hasSetsBehindSlices;  ///< encoders put parameter sets after a slice too
  uint32_t (*identifier)(ParameterSetKind kind, ByteView payload);

  uint8_t type(uint8_t firstByte) const { return static_cast<uint8_t>(firstByte >> typeShift & typeMask); }
  bool isSlice(uint8_t type) const { return type >= firstSliceType && type <= lastSliceType; }
  bool hasKind(ParameterSetKind kind) const { return kind != ParameterSetKind::vps || vpsType; }
  std::optional<ParameterSetKind> parameterSetKind(uint8_t type) const {
    if (type == vpsType) return ParameterSetKind::vps;
    if (type == spsType) return ParameterSetKind::sps;
    if (type == ppsType) return ParameterSetKind::pps;
    return std::nullopt;
  }
};

/// ITU-T H.265 7.3.1.2. Slices are all types of the VCL range, the reserved ones included.
inline constexpr NALCodec hevcNALCodec{.headerSize = 2,
                                       .headerBytesInRbsp = 2,
                                       .typeShift = 1,
                                       .typeMask = 63,
                                       .firstSliceType = 0,
                                       .lastSliceType = 31,
                                       .vpsType = hevcNALType::vps,
                                       .spsType = hevcNALType::sps,
                                       .ppsType = hevcNALType::pps,
                                       .hasSetsBehindSlices = false,
                                       .identifier = parseHEVCParameterSetID};

/// ITU-T H.264 7.3.1. Slices are the types of coded slices and slice data partitions.
inline constexpr NALCodec avcNALCodec{.headerSize = 1,
                                      .headerBytesInRbsp = 0,
                                      .typeShift = 0,
                                      .typeMask = 31,
                                      .firstSliceType = 1,
                                      .lastSliceType = 5,
                                      .vpsType = std::nullopt,
                                      .spsType = avcNALType::sps,
                                      .ppsType = avcNALType::pps,
                                      .hasSetsBehindSlices = true,
                                      .identifier = parseAVCParameterSetID};

}  // namespace tarn
