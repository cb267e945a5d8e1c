#include "platform/SafeName.h"

#include <algorithm>

namespace tarn {
namespace {

constexpr size_t longestName = 255;  // bytes, NAME_MAX of all common file systems
constexpr size_t longestEnding = 16;

bool isContinuation(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

/// Bytes of the UTF-8 character at the start of the text (RFC 3629, surrogates and overlong forms excluded); 0 when
/// there is none.
size_t characterLength(std::string_view text) {
  const auto byte = [&](size_t at) { return at < text.size() ? static_cast<unsigned char>(text[at]) : 0; };
  const auto lead = byte(0);
  if (lead < 0x80) return 1;
  const size_t length = lead >= 0xC2 && lead <= 0xDF   ? 2
                        : (lead & 0xF0) == 0xE0        ? 3
                        : lead >= 0xF0 && lead <= 0xF4 ? 4
                                                       : 0;
  if (length == 0 || text.size() < length) return 0;
  if (!std::all_of(text.begin() + 1, text.begin() + static_cast<std::ptrdiff_t>(length), isContinuation)) return 0;
  const bool overlong = (lead == 0xE0 && byte(1) < 0xA0) || (lead == 0xF0 && byte(1) < 0x90);
  const bool beyond = (lead == 0xED && byte(1) >= 0xA0) || (lead == 0xF4 && byte(1) >= 0x90);
  return overlong || beyond ? 0 : length;
}

/// Cuts valid UTF-8 to at most `size` bytes, between characters.
std::string_view cut(std::string_view text, size_t size) {
  if (text.size() <= size) return text;
  while (size > 0 && isContinuation(text[size])) --size;
  return text.substr(0, size);
}

/// Where the ending, with its dot, begins; the name's end when there is none.
size_t endingOffset(std::string_view name, NameKind kind) {
  const size_t dot = name.rfind('.');
  const bool hasEnding = kind == NameKind::file && dot != std::string_view::npos && dot > 0 && dot + 1 < name.size() &&
                         name.size() - dot <= longestEnding;
  return hasEnding ? dot : name.size();
}

/// Puts `suffix` before the ending and cuts what stands before it so that the whole fits.
std::string withSuffix(std::string_view name, NameKind kind, const std::string& suffix) {
  const size_t ending = endingOffset(name, kind);
  const std::string_view tail = name.substr(ending);
  return std::string(cut(name.substr(0, ending), longestName - tail.size() - suffix.size())) + suffix +
         std::string(tail);
}

}  // namespace

std::string safeName(std::string_view text, NameKind kind) {
  if (text.empty()) return kind == NameKind::file ? "video.mp4" : "Untitled";
  std::string name;
  while (!text.empty()) {
    const size_t length = characterLength(text);
    const auto lead = static_cast<unsigned char>(text.front());
    const bool refused = length == 0 || lead < 0x20 || lead == 0x7F || lead == '/';
    name += refused ? "_" : text.substr(0, length);
    text.remove_prefix(std::max<size_t>(length, 1));
  }
  if (name.front() == '.') name.front() = '_';
  return withSuffix(name, kind, "");
}

std::string uniqueName(const std::string& name, NameKind kind, const std::set<std::string>& taken) {
  std::string candidate = name;
  for (size_t number = 2; taken.contains(candidate); ++number) {
    candidate = withSuffix(name, kind, " " + std::to_string(number));
  }
  return candidate;
}

}  // namespace tarn
