#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace tarn {

/// A byte buffer that owns its bytes, and a view of bytes that somebody else owns.
using Bytes = std::vector<uint8_t>;
using ByteView = std::span<const uint8_t>;

/// The bytes of a text. The view lives as long as the text.
inline ByteView bytesOf(std::string_view text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

/// Bytes as text, byte for byte. The view lives as long as the bytes.
inline std::string_view textOf(ByteView bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace tarn
