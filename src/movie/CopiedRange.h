#pragma once

#include <cstdint>

namespace tarn {

/// Bytes that a rewrite took over from the old file unchanged; offsets in either file.
struct CopiedRange {
  uint64_t from = 0;
  uint64_t to = 0;
  uint64_t size = 0;

  bool operator==(const CopiedRange&) const = default;
};

}  // namespace tarn
