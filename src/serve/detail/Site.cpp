#include "serve/detail/Site.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <optional>
#include <utility>

#include "platform/UTF8.h"
#include "serve/detail/ByteRange.h"
#include "serve/detail/HostScript.h"

namespace tarn {
namespace {

constexpr std::string_view videos = "/videos/";

SiteAnswer typed(std::string type, std::string text) {
  return {.fields = {{"Content-Type", std::move(type)}}, .text = std::move(text)};
}

JSObject assetEntry(const PHAsset& asset) {
  const std::chrono::duration<double> created = asset.creationDate.time_since_epoch();
  return {{"id", asset.localIdentifier},
          {"filename", asset.filename},
          {"bytes", static_cast<int64_t>(asset.size)},
          {"created", created.count()},
          {"path", asset.path.string()},
          {"video", std::string(videos.substr(1)) + asset.localIdentifier}};
}

/// The field that has a browser keep a file under its name (RFC 6266 4.1), without what could break the field or
/// mislead who reads it.
std::string attachment(const std::string& filename) {
  constexpr size_t longestName = 255;
  std::string plain, encoded;
  for (const char c : plainLine(filename, longestName)) {
    const auto byte = static_cast<unsigned char>(c);
    const bool isAlphanumeric = byte < 0x80 && std::isalnum(byte) != 0;
    plain += isAlphanumeric || std::string_view(" .-_()").find(c) != std::string_view::npos ? c : '_';
    encoded += isAlphanumeric || c == '.' || c == '-' || c == '_' ? std::string(1, c) : fmt::format("%{:02X}", byte);
  }
  return fmt::format("attachment; filename=\"{}\"; filename*=UTF-8''{}", plain, encoded);
}

}  // namespace

SiteAnswer SiteAnswer::words(int status, std::string words) {
  return {.status = status, .fields = {{"Content-Type", "text/plain; charset=utf-8"}}, .text = std::move(words) + "\n"};
}

SiteAnswer SiteAnswer::json(const JSObject& object, int status) {
  return {.status = status, .fields = {{"Content-Type", "application/json"}}, .text = object.json()};
}

SiteAnswer SiteAnswer::whole(FileManager& files, const Path& path, std::string type) {
  auto file = files.open(path, OpenMode::reading);
  const uint64_t size = file->seekToEnd();
  file->seek(0);
  return {.fields = {{"Content-Type", std::move(type)}}, .file = std::move(file), .count = size};
}

const std::vector<std::pair<std::string, std::string>>& commonFields() {
  static const std::vector<std::pair<std::string, std::string>> fields{
      {"Content-Security-Policy",
       "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; font-src 'self'; media-src 'self'; "
       "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'"},
      {"X-Content-Type-Options", "nosniff"},
      {"Cache-Control", "no-store"},
      {"Referrer-Policy", "no-referrer"},
      {"Cross-Origin-Opener-Policy", "same-origin"},
      {"Cross-Origin-Resource-Policy", "same-origin"},
  };
  return fields;
}

Site::Site(FileManager& files, PHPhotoLibrary& photos, const Path& folder, std::string script)
    : files_(files), photos_(photos), folder_(folder), script_(std::move(script)) {}

bool Site::asksLibrary(const RequestTarget& target) {
  return target.path == "/albums" || target.path.starts_with(videos);
}

SiteAnswer Site::answer(const RequestHead& head, const RequestTarget& target) const {
  if (target.path == "/" || target.path == "/index.html") return index();
  if (target.path == "/bridge/native.js") return script();
  if (target.path == "/bridge/alive") return {.status = 204};
  if (target.path == "/albums") return albums();
  if (target.path.starts_with(videos)) {
    return video(head, target.path.substr(videos.size()), target.query.contains("download"));
  }
  return pageFile(target);
}

SiteAnswer Site::index() const {
  return typed(contentType("index.html"), withHostScript(textOf(readFile(files_, folder_ / "index.html"))));
}

SiteAnswer Site::script() const {
  return typed(contentType("native.js"), script_);
}

SiteAnswer Site::albums() const {
  JSValue::Array albums;
  for (const auto& [album, held] : photos_.fetchContents(std::nullopt)) {
    JSValue::Array assets;
    for (const PHAsset& asset : held) assets.emplace_back(assetEntry(asset));
    albums.emplace_back(JSObject{{"title", album.title}, {"assets", std::move(assets)}});
  }
  return SiteAnswer::json({{"albums", std::move(albums)}});
}

SiteAnswer Site::video(const RequestHead& head, const std::string& id, bool isDownload) const {
  const auto asset = photos_.fetchAsset(id);
  if (!asset || !files_.fileExists(asset->path)) return SiteAnswer::words(404, "There is no such video.");
  auto file = files_.open(asset->path, OpenMode::reading);
  const uint64_t size = file->seekToEnd();
  // Nothing that a condition could name is sent, so a conditional range never holds (RFC 9110 13.1.5).
  const auto range = ByteRange::of(head.field("if-range") ? std::nullopt : head.field("range"), size);
  if (range.kind == ByteRange::Kind::unsatisfiable) {
    SiteAnswer refused = SiteAnswer::words(416, "The video has no such bytes.");
    refused.fields.emplace_back("Content-Range", fmt::format("bytes */{}", size));
    return refused;
  }
  file->seek(range.first);
  SiteAnswer answer{.fields = {{"Content-Type", videoContentType(asset->filename)}, {"Accept-Ranges", "bytes"}},
                    .file = std::move(file),
                    .count = range.count};
  if (isDownload) answer.fields.emplace_back("Content-Disposition", attachment(asset->filename));
  if (range.kind == ByteRange::Kind::part) {
    answer.status = 206;
    answer.fields.emplace_back("Content-Range",
                               fmt::format("bytes {}-{}/{}", range.first, range.first + range.count - 1, size));
  }
  return answer;
}

SiteAnswer Site::pageFile(const RequestTarget& target) const {
  const auto path = folder_.find(target.path);
  if (!path && target.path == "/favicon.ico") return {.status = 204};
  if (!path) return SiteAnswer::words(404, "There is nothing here.");
  return SiteAnswer::whole(files_, *path, contentType(*path));
}

}  // namespace tarn
