#include "download/TransferNote.h"

#include <nlohmann/json.hpp>

namespace tarn {

std::string TransferNote::text() const {
  return nlohmann::ordered_json{{"id", id}, {"skipVideoFix", skipVideoFix}, {"skipAudioFix", skipAudioFix}}.dump();
}

std::optional<TransferNote> TransferNote::parse(const std::string& text) {
  try {
    auto object = nlohmann::json::parse(text);
    return TransferNote{.id = object.at("id").get_ref<const int64_t&>(),
                        .skipVideoFix = object.at("skipVideoFix").get<bool>(),
                        .skipAudioFix = object.at("skipAudioFix").get<bool>()};
  } catch (const nlohmann::json::exception&) {
    return std::nullopt;
  }
}

}  // namespace tarn
