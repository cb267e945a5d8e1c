#include "platform/UTF8.h"

#include <algorithm>
#include <cstdint>

namespace tarn {
namespace {

/// What the first byte of a character says: the length, and the range of the second byte, which shuts out overlong
/// forms, surrogates and values above U+10FFFF. A length of 0: no first byte.
struct Lead {
  size_t length;
  uint8_t secondLow = 0x80;
  uint8_t secondHigh = 0xBF;
};

Lead leadOf(uint8_t byte) {
  if (byte < 0x80) return {1};
  if (byte >= 0xC2 && byte <= 0xDF) return {2};
  if (byte == 0xE0) return {3, 0xA0};
  if (byte == 0xED) return {3, 0x80, 0x9F};
  if (byte >= 0xE1 && byte <= 0xEF) return {3};
  if (byte == 0xF0) return {4, 0x90};
  if (byte >= 0xF1 && byte <= 0xF3) return {4};
  if (byte == 0xF4) return {4, 0x80, 0x8F};
  return {0};
}

bool isContinuation(char byte) {
  return (static_cast<uint8_t>(byte) & 0xC0) == 0x80;
}

}  // namespace

size_t characterLength(std::string_view text) {
  if (text.empty()) return 0;
  const Lead lead = leadOf(static_cast<uint8_t>(text.front()));
  if (lead.length == 0 || lead.length > text.size()) return 0;
  const std::string_view rest = text.substr(1, lead.length - 1);
  if (rest.empty()) return 1;
  const auto second = static_cast<uint8_t>(rest.front());
  const bool isCharacter =
      second >= lead.secondLow && second <= lead.secondHigh && std::ranges::all_of(rest, isContinuation);
  return isCharacter ? lead.length : 0;
}

bool isUTF8(std::string_view text) {
  while (const size_t length = characterLength(text)) text.remove_prefix(length);
  return text.empty();
}

std::string_view cutUTF8(std::string_view text, size_t size) {
  if (text.size() <= size) return text;
  while (size > 0 && isContinuation(text[size])) --size;
  return text.substr(0, size);
}

}  // namespace tarn
