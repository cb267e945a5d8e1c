#include "engine/Library.h"

#include <algorithm>

#include "platform/Error.h"

namespace tarn {
namespace {

Error failure(std::string words) {
  return Error("Library", -1, std::move(words));
}

LibraryAsset assetOf(const PHAsset& asset) {
  // In an album the file may have a number in its name; outside, it has no name of its own.
  const std::string place = asset.path.filename();
  return {.assetId = asset.localIdentifier,
          .filename = place == asset.localIdentifier ? asset.filename : place,
          .size = asset.size,
          .created = asset.creationDate,
          .path = asset.path};
}

std::vector<LibraryAsset> assetsOf(const std::vector<PHAsset>& assets) {
  std::vector<LibraryAsset> all;
  all.reserve(assets.size());
  for (const PHAsset& asset : assets) all.push_back(assetOf(asset));
  return all;
}

}  // namespace

std::vector<LibraryAlbum> Library::albums(const std::optional<std::string>& title) {
  std::vector<LibraryAlbum> albums;
  for (const auto& [collection, held] : photos_.fetchContents(title)) {
    auto assets = assetsOf(held);
    if (assets.empty()) continue;
    const auto same = std::ranges::find(albums, collection.title, &LibraryAlbum::title);
    if (same == albums.end()) {
      albums.push_back({collection.title, std::move(assets)});
    } else {
      same->assets.insert(same->assets.end(), assets.begin(), assets.end());
    }
  }
  return albums;
}

std::vector<LibraryAsset> Library::removed() {
  return assetsOf(photos_.fetchDeletedAssets());
}

std::optional<LibraryAsset> Library::change(const AssetChange& change) {
  using Action = AssetChange::Action;
  const std::string& id = change.assetId;
  const bool isRemoved = std::ranges::count(photos_.fetchDeletedAssets(), id, &PHAsset::localIdentifier) > 0;
  if (!isRemoved && !find(id)) throw failure("There is no such video in the library");
  if (isRemoved && (change.action == Action::rename || change.action == Action::move)) {
    throw failure("The video is removed: restore it first");
  }
  if (change.action == Action::remove) ask(&PHChangeBlock::deleteAssets, id);
  if (change.action == Action::erase) ask(&PHChangeBlock::expungeAssets, id);
  if (change.action == Action::restore) ask(&PHChangeBlock::recoverAssets, id);
  if (change.action == Action::rename) rename(id, change.filename);
  if (change.action == Action::move) move(id, change.album);
  return find(id);
}

void Library::ask(void (PHChangeBlock::*request)(const std::vector<PHObjectPlaceholder>&), const std::string& assetId) {
  photos_.performChangesAndWait([&](PHChangeBlock& block) { (block.*request)({{assetId}}); });
}

std::optional<LibraryAsset> Library::find(const std::string& assetId) {
  const auto asset = photos_.fetchAsset(assetId);
  return asset ? std::optional(assetOf(*asset)) : std::nullopt;
}

void Library::rename(const std::string& assetId, const std::string& filename) {
  if (filename.empty()) throw failure("A file name is needed");
  std::string name = filename;
  const auto asset = find(assetId);
  if (asset && Path(name).extension().empty()) name += Path(asset->filename).extension();
  photos_.performChangesAndWait([&](PHChangeBlock& block) {
    if (auto* const request = block.changeRequestForAsset(assetId)) request->setFilename(name);
  });
}

void Library::move(const std::string& assetId, const std::string& album) {
  if (album.empty()) throw failure("An album is needed");
  const auto places = photos_.fetchAssetCollectionsContaining(assetId);
  const auto albums = photos_.fetchAssetCollections(album);
  photos_.performChangesAndWait([&](PHChangeBlock& block) {
    std::optional<std::string> target;
    if (!albums.empty()) {
      target = albums.front().localIdentifier;
    } else if (const auto made = block.creationRequestForAssetCollection(album)) {
      target = made->localIdentifier;
    }
    if (!target || !block.addAssets(*target, {{assetId}})) throw failure("The album could not be made");
    for (const PHAssetCollection& place : places) {
      if (place.localIdentifier != *target) block.removeAssets(place.localIdentifier, {{assetId}});
    }
  });
}

}  // namespace tarn
