#include "api/FileNames.h"

#include <algorithm>
#include <string_view>

#include "platform/SafeName.h"
#include "platform/URL.h"
#include "platform/UTF8.h"

namespace tarn {
namespace {

constexpr size_t longestEntry = 255;  // bytes, of a name in a directory

bool hasControl(std::string_view text) {
  return std::ranges::any_of(text, [](char c) { return static_cast<uint8_t>(c) < 0x20 || c == 0x7F; });
}

}  // namespace

std::string defaultFilename(const std::string& url) {
  const auto parsed = URL::parse(encodedURL(url));
  return videoName(parsed ? parsed->lastPathComponent() : "");
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
