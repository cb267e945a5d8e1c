#include "platform/SafeName.h"

#include <algorithm>

#include "platform/UTF8.h"

namespace tarn {
namespace {

constexpr size_t longestName = 255;  // bytes, NAME_MAX of all common file systems
constexpr size_t longestEnding = 16;

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
  return std::string(cutUTF8(name.substr(0, ending), longestName - tail.size() - suffix.size())) + suffix +
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
