#include "app/LibraryNames.h"

#include <fmt/format.h>

#include <algorithm>
#include <functional>

#include "platform/Error.h"

namespace tarn {
namespace {

/// A video in one of its albums.
struct Place {
  const LibraryAlbum* album;
  const LibraryAsset* asset;

  std::string words() const { return album->title + "/" + asset->filename; }
};

using Condition = std::function<bool(const Place&)>;

/// The places that meet a condition, one for each video.
std::vector<Place> placesWhere(const std::vector<LibraryAlbum>& albums, const Condition& condition) {
  std::vector<Place> places;
  for (const LibraryAlbum& album : albums) {
    for (const LibraryAsset& asset : album.assets) {
      const auto isSame = [&](const Place& place) { return place.asset->assetId == asset.assetId; };
      if (condition({&album, &asset}) && std::ranges::none_of(places, isSame)) places.push_back({&album, &asset});
    }
  }
  return places;
}

std::filesystem::path plainPath(const std::filesystem::path& path) {
  std::error_code failure;
  return std::filesystem::weakly_canonical(std::filesystem::absolute(path, failure), failure);
}

std::string choices(const std::vector<Place>& places) {
  std::string words;
  for (const Place& place : places) words += fmt::format("\n  {}  {}", place.asset->assetId, place.words());
  return words;
}

}  // namespace

LibraryAsset videoNamed(const std::vector<LibraryAlbum>& albums, const std::string& name) {
  const auto path = plainPath(name);
  const Condition conditions[] = {
      [&](const Place& place) { return place.asset->assetId == name; },
      [&](const Place& place) { return !path.empty() && plainPath(place.asset->path) == path; },
      [&](const Place& place) { return place.words() == name; },
      [&](const Place& place) { return place.asset->filename == name; },
  };
  for (const Condition& condition : conditions) {
    const auto places = placesWhere(albums, condition);
    if (places.size() == 1) return *places[0].asset;
    if (places.empty()) continue;
    throw Error("Library", -1,
                fmt::format("\"{}\" is more than one video. Name one of these:{}", name, choices(places)));
  }
  throw Error("Library", -1, fmt::format("There is no video \"{}\". `tarn library` lists all.", name));
}

std::vector<LibraryAsset> videosNamed(const std::vector<LibraryAlbum>& albums, const std::vector<std::string>& names) {
  std::vector<LibraryAsset> assets;
  for (const std::string& name : names) {
    LibraryAsset asset = videoNamed(albums, name);
    if (std::ranges::count(assets, asset.assetId, &LibraryAsset::assetId) == 0) assets.push_back(std::move(asset));
  }
  return assets;
}

}  // namespace tarn
