#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace tarn {

/// Which bytes of a file answer a request.
struct ByteRange {
  enum class Kind {
    whole,          ///< 200: no range was asked for, or none that is understood (RFC 9110 14.2)
    part,           ///< 206
    unsatisfiable,  ///< 416
  };
  Kind kind = Kind::whole;
  uint64_t first = 0;  ///< offset of the first byte
  uint64_t count = 0;  ///< bytes; 0 where unsatisfiable

  bool operator==(const ByteRange&) const = default;

  /// The most bytes of one part. A player asks for more when it wants more; one that is paused in the middle of a long
  /// answer would hold one of the few connections that a browser opens.
  static constexpr uint64_t largestPart = 2 << 20;

  /// Reads the Range field of a request for a file of `size` bytes. Of several ranges none is understood.
  static ByteRange of(std::optional<std::string_view> field, uint64_t size);
};

}  // namespace tarn
