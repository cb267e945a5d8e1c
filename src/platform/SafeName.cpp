#include "platform/SafeName.h"

#include <algorithm>
#include <array>
#include <cctype>

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

constexpr size_t longestVideoName = 200;

std::string_view videoEnding(std::string_view name) {
  for (std::string_view ending : std::array<std::string_view, 3>{".mp4", ".mov", ".m4v"}) {
    if (name.size() <= ending.size()) continue;
    std::string_view tail = name.substr(name.size() - ending.size());
    bool isSame = std::ranges::equal(tail, ending, {}, [](char c) { return std::tolower(static_cast<uint8_t>(c)); });
    if (isSame) return tail;
  }
  return {};
}

bool isUnsafe(char c) {
  auto byte = static_cast<uint8_t>(c);
  return byte < 0x20 || byte == 0x7F || c == '/' || c == '\\';
}

}  // namespace

std::string withSuffix(std::string_view name, NameKind kind, const std::string& suffix) {
  const size_t ending = endingOffset(name, kind);
  const std::string_view tail = name.substr(ending);
  return std::string(cutUTF8(name.substr(0, ending), longestName - tail.size() - suffix.size())) + suffix +
         std::string(tail);
}

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

std::string videoName(std::string text) {
  std::ranges::replace_if(text, isUnsafe, '_');
  text.erase(0, std::min(text.find_first_not_of('.'), text.size()));
  std::string ending(videoEnding(text));
  text.resize(text.size() - ending.size());
  if (text.empty()) return "video.mp4";
  if (ending.empty()) ending = ".mp4";
  return std::string(cutUTF8(text, longestVideoName - ending.size())) + ending;
}

std::string uniqueName(const std::string& name, NameKind kind, const std::set<std::string>& taken) {
  std::string candidate = name;
  for (size_t number = 2; taken.contains(candidate); ++number) {
    candidate = withSuffix(name, kind, " " + std::to_string(number));
  }
  return candidate;
}

}  // namespace tarn
