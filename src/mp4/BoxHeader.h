#pragma once

#include <cstdint>
#include <string>

namespace tarn {

/// Where one box is in a file or buffer (ISO/IEC 14496-12 4.2). Offset and size come from a walker, so their sum
/// never overflows.
struct BoxHeader {
  uint64_t offset = 0;  ///< of the box's first byte
  uint64_t size = 0;    ///< whole box in bytes, header included; for a size field of 0 what the walker's policy says
  std::string type;     ///< four-character code; empty if the four bytes cannot be decoded
  int headerSize = 8;   ///< 8, or 16 when the 64-bit size was read

  uint64_t contentOffset() const { return offset + static_cast<uint64_t>(headerSize); }
  uint64_t contentSize() const {
    const auto header = static_cast<uint64_t>(headerSize);
    return size > header ? size - header : 0;
  }
  uint64_t end() const { return offset + size; }
};

/// The name under which MP4BoxUtils and the workers hand a box of a file around.
using MP4BoxInfo = BoxHeader;

}  // namespace tarn
