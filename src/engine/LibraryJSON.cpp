#include "engine/LibraryJSON.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "platform/DateText.h"

namespace tarn {
namespace {

using Action = AssetChange::Action;

constexpr std::array<std::pair<std::string_view, Action>, 5> actions{{
    {"remove", Action::remove},
    {"erase", Action::erase},
    {"restore", Action::restore},
    {"rename", Action::rename},
    {"move", Action::move},
}};

}  // namespace

JSObject jsonOf(const LibraryAsset& asset) {
  return {{"assetId", asset.assetId},
          {"filename", asset.filename},
          {"size", static_cast<int64_t>(asset.size)},
          {"created", dateText(asset.created)},
          {"path", asset.path.string()}};
}

LibraryAsset libraryAssetOf(const JSObject& object) {
  return {.assetId = valueAt<std::string>(object, "assetId", ""),
          .filename = valueAt<std::string>(object, "filename", ""),
          .size = static_cast<uint64_t>(valueAt<int64_t>(object, "size", 0)),
          .created = dateOfText(valueAt<std::string>(object, "created", "")),
          .path = valueAt<std::string>(object, "path", "")};
}

JSObject jsonOf(const LibraryAlbum& album) {
  return {{"title", album.title}, {"assets", jsonArrayOf(album.assets)}};
}

LibraryAlbum libraryAlbumOf(const JSObject& object) {
  LibraryAlbum album{.title = valueAt<std::string>(object, "title", ""), .assets = {}};
  const auto* assets = valueAt<JSValue::Array>(object, "assets");
  if (!assets) return album;
  for (const JSValue& asset : *assets) {
    if (const auto* fields = asset.get<JSObject>()) album.assets.push_back(libraryAssetOf(*fields));
  }
  return album;
}

JSObject jsonOf(const AssetChange& change) {
  const auto* action = std::ranges::find(actions, change.action, &decltype(actions)::value_type::second);
  JSObject object{{"assetId", change.assetId}, {"action", std::string(action->first)}};
  if (change.action == Action::rename) object.set("filename", change.filename);
  if (change.action == Action::move) object.set("album", change.album);
  return object;
}

std::optional<AssetChange> assetChangeOf(const CAPPluginCall& call) {
  const std::string name = call.getString("action").value_or("");
  const auto* action = std::ranges::find(actions, std::string_view(name), &decltype(actions)::value_type::first);
  auto assetId = call.getString("assetId");
  if (action == actions.end() || !assetId) return std::nullopt;
  return AssetChange{.assetId = std::move(*assetId),
                     .action = action->second,
                     .filename = call.getString("filename").value_or(""),
                     .album = call.getString("album").value_or("")};
}

}  // namespace tarn
