#include "mp4/DataExtensions.h"

#include <algorithm>

#include "platform/UTF8.h"

namespace tarn {
namespace {

bool holds(size_t dataSize, size_t at, size_t width) {
  return at <= dataSize && dataSize - at >= width;
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
  return isUTF8(textOf(bytes)) ? std::string(textOf(bytes)) : std::string();
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
