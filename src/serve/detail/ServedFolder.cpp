#include "serve/detail/ServedFolder.h"

#include <algorithm>
#include <array>
#include <utility>

#include "platform/Error.h"
#include "platform/URL.h"
#include "platform/UTF8.h"

namespace tarn {
namespace {

using Type = std::pair<std::string_view, std::string_view>;

constexpr std::array<Type, 15> pageTypes{{
    {".html", "text/html; charset=utf-8"},
    {".js", "text/javascript; charset=utf-8"},
    {".mjs", "text/javascript; charset=utf-8"},
    {".css", "text/css; charset=utf-8"},
    {".json", "application/json"},
    {".map", "application/json"},
    {".webmanifest", "application/manifest+json"},
    {".txt", "text/plain; charset=utf-8"},
    {".svg", "image/svg+xml"},
    {".png", "image/png"},
    {".jpg", "image/jpeg"},
    {".webp", "image/webp"},
    {".ico", "image/x-icon"},
    {".woff2", "font/woff2"},
    {".mp4", "video/mp4"},
}};

constexpr std::array<Type, 4> videoTypes{{
    {".mov", "video/quicktime"},
    {".webm", "video/webm"},
    {".mkv", "video/x-matroska"},
    {".3gp", "video/3gpp"},
}};

template <size_t N>
std::string typeOf(const Path& file, const std::array<Type, N>& types, std::string_view otherwise) {
  const std::string ending = lowered(file.extension().string());
  const auto found = std::ranges::find(types, std::string_view(ending), &Type::first);
  return std::string(found == types.end() ? otherwise : found->second);
}

/// A name that is one step down, and not hidden.
bool isPlainName(const Path& name) {
  const std::string& text = name.native();
  return !text.empty() && text.front() != '.' &&
         std::ranges::all_of(text, [](unsigned char c) { return c >= ' ' && c != '\\' && c != 0x7F; });
}

}  // namespace

ServedFolder::ServedFolder(const Path& root) {
  std::error_code missing;
  root_ = std::filesystem::canonical(root, missing);
  if (missing || !std::filesystem::is_regular_file(root_ / "index.html", missing)) {
    throw Error("Serve", -1,
                "The page is not built: there is no " + (root / "index.html").string() +
                    ". Start it as ./tarn serve, which builds the page, or name a built one with --web DIR");
  }
}

std::optional<Path> ServedFolder::find(std::string_view urlPath) const {
  const auto decoded = percentDecode(urlPath);
  if (!decoded || !decoded->starts_with('/')) return std::nullopt;
  const Path relative(decoded->substr(1));
  if (relative.is_absolute() || relative.empty() || !std::ranges::all_of(relative, isPlainName)) return std::nullopt;
  std::error_code failure;
  Path file = std::filesystem::canonical(root_ / relative, failure);
  if (failure || !std::filesystem::is_regular_file(file, failure)) return std::nullopt;
  const auto parts = std::ranges::mismatch(root_, file);
  return parts.in1 == root_.end() ? std::optional(std::move(file)) : std::nullopt;
}

std::string contentType(const Path& file) {
  return typeOf(file, pageTypes, "application/octet-stream");
}

std::string videoContentType(const Path& file) {
  return typeOf(file, videoTypes, "video/mp4");
}

}  // namespace tarn
