#include "platform/UTF8.h"

#include <fmt/format.h>

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

bool isBlank(uint32_t character) {
  return character == ' ' || (character >= '\t' && character <= '\r') || character == 0x85 || character == 0xA0 ||
         (character >= 0x2000 && character <= 0x200A) || character == 0x2028 || character == 0x2029 ||
         character == 0x202F || character == 0x205F || character == 0x3000;
}

/// Control and format characters of Unicode: nobody sees them, and some turn what stands around them.
bool isUnseen(uint32_t character) {
  struct Range {
    uint32_t first;
    uint32_t last;
  };
  constexpr Range unseen[] = {{0, 0x1F},        {0x7F, 0x9F},     {0xAD, 0xAD},      {0x61C, 0x61C},
                              {0x180E, 0x180E}, {0x200B, 0x200F}, {0x202A, 0x202E},  {0x2060, 0x206F},
                              {0xFEFF, 0xFEFF}, {0xFFF9, 0xFFFB}, {0xE0000, 0xE0FFF}};
  return std::ranges::any_of(unseen, [=](Range range) { return character >= range.first && character <= range.last; });
}

/// Characters that do something to a terminal, or to what stands around them.
bool isActive(uint32_t character) {
  return character < 0x20 || (character >= 0x7F && character <= 0x9F) || character == 0x61C || character == 0x200E ||
         character == 0x200F || (character >= 0x2028 && character <= 0x202E) ||
         (character >= 0x2066 && character <= 0x2069);
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

uint32_t characterNumber(std::string_view character) {
  const auto lead = static_cast<uint8_t>(character.front());
  if (character.size() == 1) return lead;
  uint32_t number = lead & (0x7Fu >> character.size());
  for (const char byte : character.substr(1)) number = number << 6 | (static_cast<uint8_t>(byte) & 0x3Fu);
  return number;
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

std::string lowered(std::string_view text) {
  std::string result(text);
  for (char& c : result) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return result;
}

std::string plainLine(std::string_view text, size_t size) {
  std::string line;
  bool isBehindBlank = false;
  while (!text.empty() && line.size() <= size) {
    const size_t length = characterLength(text);
    const std::string_view character = text.substr(0, std::max<size_t>(length, 1));
    text.remove_prefix(character.size());
    if (length == 0) continue;
    const uint32_t number = characterNumber(character);
    if (isBlank(number)) {
      isBehindBlank = !line.empty();
    } else if (!isUnseen(number)) {
      if (isBehindBlank) line += ' ';
      isBehindBlank = false;
      line += character;
    }
  }
  return line.size() <= size ? line : std::string(cutUTF8(line, size)) + "...";
}

std::string escaped(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const size_t length = characterLength(text);
    const std::string_view character = text.substr(0, std::max<size_t>(length, 1));
    text.remove_prefix(character.size());
    const uint32_t number = characterNumber(character);
    if (length > 0 && !isActive(number)) {
      result += character;
    } else {
      result += length > 1 ? fmt::format("\\u{:04x}", number) : fmt::format("\\x{:02x}", number);
    }
  }
  return result;
}

std::string escapedJSON(std::string_view json) {
  std::string result;
  while (const size_t length = characterLength(json)) {
    const uint32_t number = characterNumber(json.substr(0, length));
    if (isActive(number)) {
      result += fmt::format("\\u{:04x}", number);
    } else {
      result += json.substr(0, length);
    }
    json.remove_prefix(length);
  }
  return result;
}

void appendCharacter(std::string& text, uint32_t character) {
  const bool isSurrogate = character >= 0xD800 && character <= 0xDFFF;
  if (isSurrogate || character > 0x10FFFF) return;
  if (character < 0x80) {
    text += static_cast<char>(character);
    return;
  }
  const int following = character < 0x800 ? 1 : character < 0x10000 ? 2 : 3;
  constexpr uint32_t marks[] = {0, 0xC0, 0xE0, 0xF0};
  text += static_cast<char>(marks[following] | character >> (6 * following));
  for (int i = following - 1; i >= 0; --i) text += static_cast<char>(0x80u | (character >> (6 * i) & 0x3Fu));
}

}  // namespace tarn
