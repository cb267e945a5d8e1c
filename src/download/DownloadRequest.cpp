#include "download/DownloadRequest.h"

#include <nlohmann/json.hpp>

namespace tarn {
namespace {

using Json = nlohmann::ordered_json;

std::optional<std::string> optionalText(const Json& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end() || found->is_null()) return std::nullopt;
  return found->get<std::string>();
}

}  // namespace

std::string NotedDownload::text() const {
  Json object{{"id", id}, {"skipVideoFix", request.skipVideoFix}, {"skipAudioFix", request.skipAudioFix}};
  object["url"] = request.url;
  if (request.album) object["album"] = *request.album;
  if (request.filename) object["filename"] = *request.filename;
  return object.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::optional<NotedDownload> NotedDownload::parse(const std::string& text) {
  try {
    const Json object = Json::parse(text);
    return NotedDownload{.id = object.at("id").get_ref<const int64_t&>(),
                         .request = {.url = optionalText(object, "url").value_or(""),
                                     .album = optionalText(object, "album"),
                                     .filename = optionalText(object, "filename"),
                                     .skipVideoFix = object.at("skipVideoFix").get<bool>(),
                                     .skipAudioFix = object.at("skipAudioFix").get<bool>()}};
  } catch (const nlohmann::json::exception&) {
    return std::nullopt;
  }
}

}  // namespace tarn
