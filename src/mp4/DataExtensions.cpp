#include "mp4/DataExtensions.h"

#include <algorithm>

namespace tarn {
namespace {

bool holds(size_t dataSize, size_t at, size_t width) {
  return at <= dataSize && dataSize - at >= width;
}

/// Length of the UTF-8 sequence that a lead byte begins, and the range of its second byte, which shuts out overlong
/// forms, surrogates and values above U+10FFFF (RFC 3629 4). A length of 0: no lead byte.
struct UTF8Sequence {
  size_t length;
  uint8_t secondLow = 0x80;
  uint8_t secondHigh = 0xBF;
};

UTF8Sequence utf8Sequence(uint8_t lead) {
  if (lead < 0x80) return {1};
  if (lead >= 0xC2 && lead <= 0xDF) return {2};
  if (lead == 0xE0) return {3, 0xA0};
  if (lead == 0xED) return {3, 0x80, 0x9F};
  if (lead >= 0xE1 && lead <= 0xEF) return {3};
  if (lead == 0xF0) return {4, 0x90};
  if (lead >= 0xF1 && lead <= 0xF3) return {4};
  if (lead == 0xF4) return {4, 0x80, 0x8F};
  return {0};
}

bool isUTF8(ByteView bytes) {
  for (size_t i = 0; i < bytes.size();) {
    UTF8Sequence sequence = utf8Sequence(bytes[i]);
    if (sequence.length == 0 || sequence.length > bytes.size() - i) return false;
    for (size_t k = 1; k < sequence.length; ++k) {
      uint8_t low = k == 1 ? sequence.secondLow : 0x80;
      uint8_t high = k == 1 ? sequence.secondHigh : 0xBF;
      if (bytes[i + k] < low || bytes[i + k] > high) return false;
    }
    i += sequence.length;
  }
  return true;
}

}  // namespace

std::optional<uint32_t> readUInt32(ByteView data, size_t at) {
  if (!holds(data.size(), at, 4)) return std::nullopt;
  return loadUInt32(data.subspan(at).first<4>());
}

std::optional<uint64_t> readUInt64(ByteView data, size_t at) {
  if (!holds(data.size(), at, 8)) return std::nullopt;
  return loadUInt64(data.subspan(at).first<8>());
}

void writeUInt32(std::span<uint8_t> data, uint32_t value, size_t at) {
  if (holds(data.size(), at, 4)) std::ranges::copy(bigEndianBytes(value), data.subspan(at).begin());
}

void writeUInt64(std::span<uint8_t> data, uint64_t value, size_t at) {
  if (holds(data.size(), at, 8)) std::ranges::copy(bigEndianBytes(value), data.subspan(at).begin());
}

std::string decodeUTF8(ByteView bytes) {
  return isUTF8(bytes) ? std::string(textOf(bytes)) : std::string();
}

std::optional<std::string> decodeASCII(ByteView bytes) {
  if (!std::ranges::all_of(bytes, [](uint8_t byte) { return byte < 0x80; })) return std::nullopt;
  return std::string(textOf(bytes));
}

ByteWriter& ByteWriter::uint8(uint8_t value) {
  target_.push_back(value);
  return *this;
}

ByteWriter& ByteWriter::uint16(uint16_t value) {
  return bytes(bigEndianBytes(value));
}

ByteWriter& ByteWriter::uint32(uint32_t value) {
  return bytes(bigEndianBytes(value));
}

ByteWriter& ByteWriter::uint64(uint64_t value) {
  return bytes(bigEndianBytes(value));
}

ByteWriter& ByteWriter::text(std::string_view value) {
  return bytes(bytesOf(value));
}

ByteWriter& ByteWriter::bytes(ByteView value) {
  target_.insert(target_.end(), value.begin(), value.end());
  return *this;
}

ByteWriter& ByteWriter::zeros(size_t count) {
  target_.insert(target_.end(), count, uint8_t{0});
  return *this;
}

}  // namespace tarn
