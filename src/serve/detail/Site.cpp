#include "serve/detail/Site.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <utility>

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
          {"video", std::string(videos.substr(1)) + asset.localIdentifier}};
}

}  // namespace

SiteAnswer SiteAnswer::words(int status, std::string words) {
  return {.status = status, .fields = {{"Content-Type", "text/plain; charset=utf-8"}}, .text = std::move(words) + "\n"};
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

Site::Site(FileManager& files, PHPhotoLibrary& photos, const CAPBridgedPlugin& plugin, const Path& folder,
           std::string pageKey)
    : files_(files), photos_(photos), plugin_(plugin), folder_(folder), pageKey_(std::move(pageKey)) {}

bool Site::asksLibrary(const RequestTarget& target) {
  return target.path == "/albums" || target.path.starts_with(videos);
}

SiteAnswer Site::answer(const RequestHead& head, const RequestTarget& target) const {
  if (target.path == "/" || target.path == "/index.html") return index();
  if (target.path == "/bridge/native.js") return script();
  if (target.path == "/bridge/alive") return {.status = 204};
  if (target.path == "/albums") return albums();
  if (target.path.starts_with(videos)) return video(head, target.path.substr(videos.size()));
  return pageFile(target);
}

SiteAnswer Site::index() const {
  return typed(contentType("index.html"), withHostScript(textOf(readFile(files_, folder_ / "index.html"))));
}

SiteAnswer Site::script() const {
  return typed(contentType("native.js"), hostScript(plugin_, pageKey_));
}

SiteAnswer Site::albums() const {
  JSValue::Array albums;
  for (const PHAssetCollection& album : photos_.fetchAssetCollections(std::nullopt)) {
    JSValue::Array assets;
    for (const PHAsset& asset : photos_.fetchAssets(album, std::nullopt)) assets.emplace_back(assetEntry(asset));
    albums.emplace_back(JSObject{{"title", album.title}, {"assets", std::move(assets)}});
  }
  return typed("application/json", JSObject{{"albums", std::move(albums)}}.json());
}

SiteAnswer Site::video(const RequestHead& head, const std::string& id) const {
  const auto assets = photos_.fetchAllAssets();
  const auto asset = std::ranges::find(assets, id, &PHAsset::localIdentifier);
  if (asset == assets.end() || !files_.fileExists(asset->path))
    return SiteAnswer::words(404, "There is no such video.");
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
  auto file = files_.open(*path, OpenMode::reading);
  const uint64_t size = file->seekToEnd();
  file->seek(0);
  return {.fields = {{"Content-Type", contentType(*path)}}, .file = std::move(file), .count = size};
}

}  // namespace tarn
