#pragma once

#include <cstddef>
#include <cstdint>

#include "mp4/TableRows.h"

namespace tarn {

// Boxes in buffers of C callers: a pointer, which may be null, and a length, which may be negative.

/// True when the buffer holds at least `minimum` bytes of a box of this type.
inline bool isBox(const uint8_t* buffer, int32_t length, uint32_t type, size_t minimum) {
  return buffer != nullptr && length >= 0 && static_cast<size_t>(length) >= minimum &&
         layout::load32(buffer, layout::boxType) == type;
}

/// The bytes of a box of this type; none when the buffer does not hold at least the 16 bytes ahead of a table's rows.
inline ByteView tableBox(const uint8_t* buffer, int32_t length, uint32_t type) {
  if (!isBox(buffer, length, type, layout::tableHeaderSize)) return {};
  return {buffer, static_cast<size_t>(length)};
}

/// The rows of such a table.
inline TableRows tableRows(const uint8_t* buffer, int32_t length, uint32_t type, size_t rowSize) {
  return {tableBox(buffer, length, type), rowSize, TableRows::HugeCount::isNone};
}

/// Writes the 16 bytes ahead of a table's rows.
inline void storeTableHeader(uint8_t* out, uint32_t size, uint32_t type, uint8_t version, uint32_t entryCount) {
  layout::store(out, layout::boxSize, size);
  layout::store(out, layout::boxType, type);
  layout::store(out, layout::versionAndFlags, layout::versionWord(version));
  layout::store(out, layout::entryCount, entryCount);
}

}  // namespace tarn
