#pragma once

#include <cstdint>
#include <optional>

#include "serve/detail/RequestCheck.h"

namespace tarn {

/// What the head of a request tells of its body.
struct RequestBody {
  std::optional<uint64_t> length = {};  ///< bytes, as Content-Length has it
  bool isChunked = false;
  size_t arrived = 0;  ///< bytes that came along with the head
  size_t largest = 0;  ///< that a POST may bring

  /// Why a request with such a body is not read; nothing when it is. A POST brings a JSON object, a PUT any number of
  /// bytes, every other request none.
  std::optional<Refusal> refuse(const RequestHead& head) const;
};

}  // namespace tarn
