#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "mp4/BoxLayout.h"

namespace tarn {

// Sums and differences of 64-bit time values that wrap, where the sign bit's overflow would be undefined.
constexpr int64_t wrappingAdd(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}
constexpr int64_t wrappingSubtract(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}

/// True when the buffer holds at least `minimum` bytes of a box of this type.
inline bool isBox(const uint8_t* buffer, int32_t length, uint32_t type, size_t minimum) {
  return buffer != nullptr && length >= 0 && static_cast<size_t>(length) >= minimum &&
         layout::load32(buffer, layout::boxType) == type;
}

/// Writes the 16 bytes ahead of a table's rows.
inline void storeTableHeader(uint8_t* out, uint32_t size, uint32_t type, uint8_t version, uint32_t entryCount) {
  layout::store(out, layout::boxSize, size);
  layout::store(out, layout::boxType, type);
  layout::store(out, layout::versionAndFlags, layout::versionWord(version));
  layout::store(out, layout::entryCount, entryCount);
}

/// The rows of a full box with a count: those that lie whole within the buffer. A count with the sign bit set counts as
/// none.
class TimingTable {
 public:
  /// The table of a box that was tested to be one and to hold what lies ahead of the rows.
  TimingTable(const uint8_t* buffer, int32_t length, size_t rowSize)
      : rows_(buffer + layout::tableHeaderSize), rowSize_(rowSize) {
    auto claimed = static_cast<int32_t>(layout::load32(buffer, layout::entryCount));
    size_t present = (static_cast<size_t>(length) - layout::tableHeaderSize) / rowSize;
    size_ = claimed < 1 ? 0 : std::min(static_cast<size_t>(claimed), present);
  }

  /// The table of a box of this type; one without rows when the buffer holds no such box.
  static TimingTable of(const uint8_t* buffer, int32_t length, uint32_t type, size_t rowSize) {
    return isBox(buffer, length, type, layout::tableHeaderSize) ? TimingTable(buffer, length, rowSize) : TimingTable();
  }

  size_t size() const { return size_; }
  const uint8_t* row(size_t index) const { return rows_ + index * rowSize_; }

 private:
  TimingTable() = default;

  const uint8_t* rows_ = nullptr;
  size_t rowSize_ = 0;
  size_t size_ = 0;
};

}  // namespace tarn
