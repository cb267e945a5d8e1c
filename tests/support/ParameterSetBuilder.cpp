#include "support/ParameterSetBuilder.h"

#include <algorithm>
#include <array>

namespace tarn::test {

BitBuilder& BitBuilder::bits(uint64_t value, int count) {
  for (int bit = count - 1; bit >= 0; --bit) bits_.push_back((value >> bit & 1) != 0);
  return *this;
}

BitBuilder& BitBuilder::ue(uint32_t value) {
  uint64_t code = uint64_t{value} + 1;
  int length = 64 - __builtin_clzll(code);
  return bits(0, length - 1).bits(code, length);
}

BitBuilder& BitBuilder::se(int32_t value) {
  return ue(value > 0 ? static_cast<uint32_t>(2 * value - 1) : static_cast<uint32_t>(-2 * value));
}

Bytes BitBuilder::bytes() const {
  Bytes result((bits_.size() + 7) / 8);
  for (size_t i = 0; i < bits_.size(); ++i) {
    if (bits_[i]) result[i / 8] = static_cast<uint8_t>(result[i / 8] | 0x80 >> i % 8);
  }
  return result;
}

Bytes HEVCSPS::bytes() const {
  BitBuilder sps;
  sps.bits(0x4201, 16).bits(0, 4).bits(maxSubLayersMinus1, 3).bits(1, 1);
  sps.bits(0, 3).bits(profile, 5).bits(compatibility, 32).bits(0x900000000000, 48).bits(level, 8);
  for (int i = 0; i < maxSubLayersMinus1; ++i) sps.bits(subLayerProfiles ? 3 : 0, 2);
  if (maxSubLayersMinus1 > 0) sps.bits(0, 2 * (8 - maxSubLayersMinus1));
  for (int i = 0; subLayerProfiles && i < maxSubLayersMinus1; ++i) sps.bits(~0ULL, 64).bits(~0ULL, 32);
  sps.number(id).ue(chromaFormat);
  if (chromaFormat == 3) sps.bits(separatePlanes, 1);
  sps.number(width).ue(height).bits(conformanceWindow, 1);
  if (conformanceWindow) sps.ue(1).ue(3).ue(2).ue(2);
  return sps.ue(lumaDepthMinus8).ue(chromaDepthMinus8).bits(1, 9).bytes();
}

Bytes hevcVPS(uint8_t id, uint8_t content) {
  return BitBuilder().bits(0x4001, 16).bits(id, 4).bits(content, 8).bytes();
}

Bytes hevcPPS(uint32_t id, uint8_t content) {
  return BitBuilder().bits(0x4401, 16).ue(id).bits(content, 8).bytes();
}

Bytes AVCSPS::bytes() const {
  BitBuilder sps;
  sps.bits(0x67, 8).bits(profile, 8).bits(0, 8).bits(40, 8).number(id);
  constexpr std::array<uint8_t, 13> withChroma{44, 83, 86, 100, 110, 118, 122, 128, 134, 135, 138, 139, 244};
  if (std::ranges::find(withChroma, profile) != withChroma.end()) {
    sps.ue(chromaFormat);
    if (chromaFormat == 3) sps.bits(0, 1);
    sps.ue(0).ue(0).bits(0, 1).bits(scalingLists, 1);
    // A list of 16 deltas, absent ones, the first of those with 64, and a last one that ends at its first delta.
    if (scalingLists) {
      sps.bits(1, 1);
      for (int i = 0; i < 16; ++i) sps.se(i % 2 == 0 ? i : -i);
      sps.bits(0, 5).bits(1, 1);
      for (int i = 0; i < 64; ++i) sps.se(i % 2 == 0 ? 1 : -1);
      sps.bits(0, chromaFormat == 3 ? 4 : 0).bits(1, 1).se(-8);
    }
  }
  sps.ue(0).ue(pictureOrderCountType);
  if (pictureOrderCountType == 0) sps.ue(2);
  if (pictureOrderCountType == 1) sps.bits(0, 1).se(-3).se(5).ue(orderCycle);
  for (uint32_t i = 0; pictureOrderCountType == 1 && i < orderCycle; ++i) sps.se(i % 2 == 0 ? 7 : -7);
  sps.ue(3).bits(0, 1).ue(widthInMbs - 1).ue(heightInMapUnits - 1).bits(framesOnly, 1);
  if (!framesOnly) sps.bits(0, 1);
  bool cropped = cropLeft + cropRight + cropTop + cropBottom != 0;
  sps.bits(1, 1).bits(cropped, 1);
  if (cropped) sps.ue(cropLeft).ue(cropRight).ue(cropTop).ue(cropBottom);
  return sps.bits(1, 1).bits(0, 32).bytes();
}

Bytes sampleOf(const std::vector<Bytes>& units, int lengthSize) {
  Bytes sample;
  for (const Bytes& unit : units) {
    for (int shift = 8 * (lengthSize - 1); shift >= 0; shift -= 8) {
      sample.push_back(static_cast<uint8_t>(unit.size() >> shift));
    }
    sample.insert(sample.end(), unit.begin(), unit.end());
  }
  return sample;
}

}  // namespace tarn::test
