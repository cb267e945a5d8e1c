#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/Bytes.h"

namespace tarn {

/// A cursor over bits, most significant first, in RBSP bytes: emulation prevention must have been removed. The bytes
/// belong to somebody else and must outlive it. Reading never fails.
struct BitReader {
  explicit BitReader(ByteView rbsp) : bytes(rbsp) {}

  ByteView bytes;
  size_t bytePosition = 0;
  int bitPosition = 0;  ///< 0 to 7, from the byte's most significant bit

  bool atEnd() const { return bytePosition >= bytes.size(); }

  /// The next `count` bits, 1 to 32; any other count gives 0 and consumes nothing. Where fewer bits remain, the value
  /// is that of the bits that there are.
  uint32_t readBits(int count);

  /// A signed Exp-Golomb value, se(v) (ITU-T H.265 9.2.2); 0 for 32 leading zero bits.
  int32_t readSE();
};

}  // namespace tarn
