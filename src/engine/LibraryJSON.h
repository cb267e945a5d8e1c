#pragma once

#include <tarn/library.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/Capacitor.h"
#include "platform/JSObject.h"

namespace tarn {

/// {assetId, filename, size, created, path}; `created` is ISO 8601 in UTC, in whole seconds.
JSObject jsonOf(const LibraryAsset& asset);
LibraryAsset libraryAssetOf(const JSObject& object);

/// {title, assets: [...]}
JSObject jsonOf(const LibraryAlbum& album);
LibraryAlbum libraryAlbumOf(const JSObject& object);

/// {assetId, action, filename?, album?}
JSObject jsonOf(const AssetChange& change);
/// The options of a call; nothing if an asset or a known action is missing.
std::optional<AssetChange> assetChangeOf(const CAPPluginCall& call);

template <typename Values>
JSValue::Array jsonArrayOf(const Values& values) {
  JSValue::Array array;
  for (const auto& value : values) array.push_back(jsonOf(value));
  return array;
}

}  // namespace tarn
