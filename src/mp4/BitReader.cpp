#include "mp4/BitReader.h"

#include <algorithm>

namespace tarn {

uint32_t BitReader::readBits(int count) {
  if (count < 1 || count > 32) return 0;
  uint32_t value = 0;
  while (count > 0 && !atEnd()) {
    int left = 8 - bitPosition;
    int taken = std::min(count, left);
    uint32_t bits = (static_cast<uint32_t>(bytes[bytePosition]) >> (left - taken)) & ((1U << taken) - 1);
    value = value << taken | bits;
    count -= taken;
    bitPosition += taken;
    if (bitPosition == 8) {
      bitPosition = 0;
      ++bytePosition;
    }
  }
  return value;
}

int32_t BitReader::readSE() {
  int leadingZeros = 0;
  while (!atEnd() && readBits(1) == 0) {
    if (++leadingZeros == 32) return 0;
  }
  if (leadingZeros == 0) return 0;
  int64_t codeNumber = (int64_t{1} << leadingZeros) - 1 + readBits(leadingZeros);
  return static_cast<int32_t>(codeNumber % 2 == 0 ? -(codeNumber / 2) : (codeNumber + 1) / 2);
}

}  // namespace tarn
