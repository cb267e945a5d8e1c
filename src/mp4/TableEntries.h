#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "mp4/BoxLayout.h"
#include "platform/Bytes.h"

namespace tarn {

/// The entries of a full box that holds a count and then the entries (`elst`, `stts`, `ctts`, `stss`): those that are
/// whole within the box. Keeps no copy.
class TableEntries {
 public:
  /// What a count of 2^31 or more means: the entries that are there, or none.
  enum class HugeCount { isCut, isNone };

  /// `box` has an 8-byte header. One that ends before its entries has none.
  TableEntries(ByteView box, size_t entrySize, HugeCount hugeCount) : entrySize_(entrySize) {
    if (box.size() < layout::tableHeaderSize) return;
    const uint32_t claimed = layout::load32(box.data(), layout::entryCount);
    if (hugeCount == HugeCount::isNone && claimed > INT32_MAX) return;
    entries_ = box.data() + layout::tableHeaderSize;
    size_ = std::min<size_t>(claimed, (box.size() - layout::tableHeaderSize) / entrySize);
  }

  size_t size() const { return size_; }
  const uint8_t* entry(size_t index) const { return entries_ + index * entrySize_; }

 private:
  size_t entrySize_;
  const uint8_t* entries_ = nullptr;
  size_t size_ = 0;
};

}  // namespace tarn
