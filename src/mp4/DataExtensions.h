#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/Bytes.h"

namespace tarn {

/// Big-endian values of memory whose length is known.
constexpr uint32_t loadUInt32(std::span<const uint8_t, 4> b) {
  return uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | uint32_t{b[3]};
}
constexpr uint64_t loadUInt64(std::span<const uint8_t, 8> b) {
  return uint64_t{loadUInt32(b.first<4>())} << 32 | loadUInt32(b.last<4>());
}

/// A value's bytes, most significant first: the order of every integer in a box.
constexpr std::array<uint8_t, 2> bigEndianBytes(uint16_t value) {
  return {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}
constexpr std::array<uint8_t, 4> bigEndianBytes(uint32_t value) {
  return {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 8),
          static_cast<uint8_t>(value)};
}
constexpr std::array<uint8_t, 8> bigEndianBytes(uint64_t value) {
  return {static_cast<uint8_t>(value >> 56), static_cast<uint8_t>(value >> 48), static_cast<uint8_t>(value >> 40),
          static_cast<uint8_t>(value >> 32), static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
          static_cast<uint8_t>(value >> 8),  static_cast<uint8_t>(value)};
}

/// The value at an offset; nothing if its bytes are not all in the data.
std::optional<uint32_t> readUInt32(ByteView data, size_t at);
std::optional<uint64_t> readUInt64(ByteView data, size_t at);

/// Overwrites the bytes at an offset; does nothing if they are not all in the data.
void writeUInt32(std::span<uint8_t> data, uint32_t value, size_t at);
void writeUInt64(std::span<uint8_t> data, uint64_t value, size_t at);

/// Text of bytes that must be UTF-8; the empty text when they are not.
std::string decodeUTF8(ByteView bytes);

/// Text of bytes that must be ASCII; nothing if they are not.
std::optional<std::string> decodeASCII(ByteView bytes);

/// Appends to a buffer: how boxes are put together.
class ByteWriter {
 public:
  explicit ByteWriter(Bytes& target) : target_(target) {}

  ByteWriter& uint8(uint8_t value);
  ByteWriter& uint16(uint16_t value);
  ByteWriter& uint32(uint32_t value);
  ByteWriter& uint64(uint64_t value);
  ByteWriter& text(std::string_view value);
  ByteWriter& bytes(ByteView value);
  ByteWriter& zeros(size_t count);

 private:
  Bytes& target_;
};

}  // namespace tarn
