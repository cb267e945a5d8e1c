#include "parameters/detail/RBSPReading.h"

namespace tarn {

Bytes removeEmulationPrevention(ByteView nalUnit) {
  Bytes rbsp;
  rbsp.reserve(nalUnit.size());
  size_t zeros = 0;  // directly before the byte, those already followed by a dropped 03 not counted
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

bool isDelimiter(ByteView payload) {
  constexpr uint8_t stopBit = 0x10;  // after 3 bits of the kind of picture
  return payload.size() == 1 && (payload[0] & 0x1F) == stopBit;
}

bool isSEI(ByteView payload, bool isWhole) {
  constexpr uint8_t stopByte = 0x80;
  const Bytes rbsp = removeEmulationPrevention(payload);
  size_t at = 0;
  const auto readNumber = [&] {
    size_t number = 0;
    while (at < rbsp.size() && rbsp[at] == 0xFF) number += rbsp[at++];
    return number + (at < rbsp.size() ? rbsp[at++] : 0);
  };
  while (at + 1 < rbsp.size()) {
    readNumber();  // the message's type
    at += readNumber();
  }
  return at >= rbsp.size() ? at > 0 && !isWhole : at > 0 && rbsp[at] == stopByte;
}

}  // namespace tarn
