#include "api/FileNames.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

#include "platform/URL.h"
#include "platform/UTF8.h"

namespace tarn {
namespace {

constexpr size_t longestName = 200;

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

constexpr size_t longestEntry = 255;  // bytes, of a name in a directory

bool hasControl(std::string_view text) {
  return std::ranges::any_of(text, [](char c) { return static_cast<uint8_t>(c) < 0x20 || c == 0x7F; });
}

}  // namespace

std::string defaultFilename(const std::string& url) {
  auto parsed = URL::parse(url);
  std::string name = parsed ? parsed->lastPathComponent() : "";
  std::ranges::replace_if(name, isUnsafe, '_');
  name.erase(0, std::min(name.find_first_not_of('.'), name.size()));
  std::string ending(videoEnding(name));
  name.resize(name.size() - ending.size());
  if (name.empty()) return "video.mp4";
  if (ending.empty()) ending = ".mp4";
  return std::string(cutUTF8(name, longestName - ending.size())) + ending;
}

std::optional<std::string> whyNoFilename(const std::string& name) {
  if (name.empty()) return "A file name cannot be empty.";
  if (name == "." || name == "..") return "\"" + name + "\" is a directory. Give another file name.";
  if (!isUTF8(name) || hasControl(name)) return "The file name \"" + name + "\" has control characters or is no UTF-8.";
  if (name.find('/') != std::string::npos) return "The file name \"" + name + "\" has a \"/\". Give a name alone.";
  if (name.size() > longestEntry) return "A file name has at most 255 bytes. Give a shorter one.";
  return std::nullopt;
}

std::optional<std::string> whyNoAlbum(const std::string& album) {
  if (album.empty()) return "An album must have a name. Give one with --album.";
  if (!isUTF8(album) || hasControl(album)) return "The album \"" + album + "\" has control characters or is no UTF-8.";
  return std::nullopt;
}

}  // namespace tarn
