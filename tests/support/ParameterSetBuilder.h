#pragma once

#include <cstdint>
#include <vector>

#include "platform/Bytes.h"

namespace tarn::test {

/// In place of a number: 32 zero bits, which stand for none.
constexpr uint32_t noNumber = UINT32_MAX;

/// Bits in a row, most significant first; the last byte is filled up with zeros.
class BitBuilder {
 public:
  BitBuilder& bits(uint64_t value, int count);
  BitBuilder& ue(uint32_t value);
  BitBuilder& se(int32_t value);
  BitBuilder& number(uint32_t value) { return value == noNumber ? bits(0, 32) : ue(value); }
  Bytes bytes() const;

 private:
  std::vector<bool> bits_;
};

/// An HEVC SPS as a NAL unit, up to the bit depths, without emulation prevention.
struct HEVCSPS {
  uint8_t maxSubLayersMinus1 = 0;
  bool subLayerProfiles = false;  ///< each sub-layer states profile and level
  uint8_t profile = 1;
  uint32_t compatibility = 0x60000000;
  uint8_t level = 93;
  uint32_t id = 0;  ///< or `noNumber`
  uint32_t chromaFormat = 1;
  bool separatePlanes = false;
  uint32_t width = 1920;  ///< or `noNumber`
  uint32_t height = 1088;
  bool conformanceWindow = false;  ///< without 1 unit on the left, 3 on the right, 2 at the top and at the bottom
  uint32_t lumaDepthMinus8 = 0;
  uint32_t chromaDepthMinus8 = 0;

  Bytes bytes() const;
};

/// HEVC VPS and PPS units that differ by identifier and content.
Bytes hevcVPS(uint8_t id, uint8_t content);
Bytes hevcPPS(uint32_t id, uint8_t content);

/// An AVC SPS as a NAL unit, up to the cropping, with some bytes behind it; without emulation prevention.
struct AVCSPS {
  uint8_t profile = 100;
  uint32_t id = 0;  ///< or `noNumber`
  uint32_t chromaFormat = 1;
  bool scalingLists = false;
  uint32_t pictureOrderCountType = 0;
  uint32_t orderCycle = 2;  ///< offsets that a type of 1 has
  uint32_t widthInMbs = 120;
  uint32_t heightInMapUnits = 68;
  bool framesOnly = true;
  uint32_t cropLeft = 0;
  uint32_t cropRight = 0;
  uint32_t cropTop = 0;
  uint32_t cropBottom = 0;

  Bytes bytes() const;
};

/// NAL units with length prefixes of `lengthSize` bytes, one behind the other: a sample.
Bytes sampleOf(const std::vector<Bytes>& units, int lengthSize = 4);

}  // namespace tarn::test
