#include "parameters/detail/RBSPReading.h"

namespace tarn {

Bytes removeEmulationPrevention(ByteView nalUnit) {
  Bytes rbsp;
  rbsp.reserve(nalUnit.size());
  size_t zeros = 0;  // directly ahead of the byte, those already followed by a dropped 03 not counted
  for (size_t i = 0; i < nalUnit.size(); ++i) {
    bool prevents = zeros >= 2 && nalUnit[i] == 3 && i + 1 < nalUnit.size() && nalUnit[i + 1] < 4;
    zeros = !prevents && nalUnit[i] == 0 ? zeros + 1 : 0;
    if (!prevents) rbsp.push_back(nalUnit[i]);
  }
  return rbsp;
}

uint32_t readUE(BitReader& bits) {
  int zeros = 0;
  while (!bits.atEnd() && bits.readBits(1) == 0) {
    if (++zeros == 32) return 0;
  }
  return bits.readBits(zeros) + (uint32_t{1} << zeros) - 1;
}

void skipBits(BitReader& bits, uint64_t count) {
  uint64_t target = uint64_t{bits.bytePosition} * 8 + static_cast<uint64_t>(bits.bitPosition) + count;
  if (target / 8 >= bits.bytes.size()) {
    bits.bytePosition = bits.bytes.size();
    bits.bitPosition = 0;
  } else {
    bits.bytePosition = target / 8;
    bits.bitPosition = static_cast<int>(target % 8);
  }
}

}  // namespace tarn
