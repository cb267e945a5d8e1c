#include "download/DownloadRequest.h"

#include "platform/TransferRules.h"

namespace tarn {

JSObject NotedDownload::object() const {
  JSObject object{
      {"id", id}, {"skipVideoFix", request.skipVideoFix}, {"skipAudioFix", request.skipAudioFix}, {"url", request.url}};
  if (request.album) object.set("album", *request.album);
  if (request.filename) object.set("filename", *request.filename);
  if (request.takesServersName) object.set("takesServersName", true);
  if (isPaused) object.set("isPaused", true);
  return object;
}

std::string NotedDownload::text() const {
  return object().json();
}

std::string NotedDownload::fullText() const {
  JSObject full = object();
  if (request.transfer != TransferOptions()) full.set("transfer", objectOf(request.transfer));
  return full.json();
}

std::optional<NotedDownload> NotedDownload::parse(const std::string& text) {
  const auto object = JSObject::parse(text);
  if (!object) return std::nullopt;
  const auto* const id = valueAt<int64_t>(*object, "id");
  const auto* const skipVideoFix = valueAt<bool>(*object, "skipVideoFix");
  const auto* const skipAudioFix = valueAt<bool>(*object, "skipAudioFix");
  if (!id || !skipVideoFix || !skipAudioFix) return std::nullopt;
  return NotedDownload{.id = *id,
                       .request = {.url = valueAt<std::string>(*object, "url", ""),
                                   .album = optionalAt<std::string>(*object, "album"),
                                   .filename = optionalAt<std::string>(*object, "filename"),
                                   .skipVideoFix = *skipVideoFix,
                                   .skipAudioFix = *skipAudioFix,
                                   .takesServersName = valueAt(*object, "takesServersName", false),
                                   .transfer = transferOptions(valueAt(*object, "transfer", JSObject()))},
                       .isPaused = valueAt(*object, "isPaused", false)};
}

}  // namespace tarn
