#include "platform/host/SQLitePhotoLibrary.h"

#include <utility>

#include "platform/Log.h"
#include "platform/host/PhotoCatalogue.h"
#include "platform/host/PhotoFiles.h"

namespace tarn {
namespace {

constexpr const char* catalogueName = ".catalogue.sqlite";

PHAssetCollection collectionOf(const AlbumRecord& album) {
  return {album.identifier, album.title};
}

std::vector<PHAsset> assetsOf(const std::vector<PlacedAsset>& placed, const PhotoFiles& files) {
  std::vector<PHAsset> assets;
  for (const auto& [asset, folder, name] : placed) {
    Path path = folder.empty() ? files.assetPath(asset.identifier) : files.pathInAlbum(folder, name);
    assets.push_back({asset.identifier, asset.filename, asset.creationDate, asset.size, std::move(path)});
  }
  return assets;
}

}  // namespace

SQLitePhotoLibrary::SQLitePhotoLibrary(FileManager& files, Dispatch& dispatch, const Path& root, Access access,
                                       MediaCheck mediaCheck)
    : fileManager_(files),
      dispatch_(dispatch),
      access_(access),
      mediaCheck_(std::move(mediaCheck)),
      files_(std::make_unique<PhotoFiles>(files, root)) {
  const Path catalogue = root / catalogueName;
  if (access == Access::readWrite) {
    files_->makeDirectories();
    catalogue_ = std::make_unique<PhotoCatalogue>(PhotoCatalogue::openOrMake(catalogue));
    clearUp();
  } else if (files.fileExists(catalogue)) {
    if (auto opened = PhotoCatalogue::openForReading(catalogue)) {
      catalogue_ = std::make_unique<PhotoCatalogue>(std::move(*opened));
    }
  }
}

SQLitePhotoLibrary::~SQLitePhotoLibrary() = default;

PHAuthorizationStatus SQLitePhotoLibrary::authorizationStatus(PHAccessLevel) {
  return authorization_.status();
}

void SQLitePhotoLibrary::requestAuthorization(PHAccessLevel, AuthorizationHandler handler) {
  authorization_.request(dispatch_, std::move(handler));
}

void SQLitePhotoLibrary::performChangesAndWait(const std::function<void(PHChangeBlock&)>& block) {
  authorization_.require();
  if (access_ == Access::readOnly) {
    throw PHPhotosError(PHPhotosError::readOnly, "The photo library is open for reading only");
  }
  std::lock_guard guard(mutex_);
  PhotoChange change(fileManager_, *files_, *catalogue_, mediaCheck_);
  block(change);
  try {
    change.apply();
  } catch (...) {
    const auto failure = std::current_exception();
    try {
      clearUp();
    } catch (...) {  // what is left is cleared up when the library is opened next
      log("WARNING: Photo library could not be cleared up: {}", describe(std::current_exception()));
    }
    std::rethrow_exception(failure);
  }
}

std::vector<PHAssetCollection> SQLitePhotoLibrary::fetchAssetCollections(const std::optional<std::string>& title) {
  std::lock_guard guard(mutex_);
  std::vector<PHAssetCollection> collections;
  if (!catalogue_) return collections;
  for (const AlbumRecord& album : catalogue_->albums(title)) collections.push_back(collectionOf(album));
  return collections;
}

std::optional<PHAssetCollection> SQLitePhotoLibrary::fetchAssetCollection(const std::string& localIdentifier) {
  std::lock_guard guard(mutex_);
  const auto album = catalogue_ ? catalogue_->album(localIdentifier) : std::nullopt;
  if (!album) return std::nullopt;
  return collectionOf(*album);
}

std::vector<PHAsset> SQLitePhotoLibrary::fetchAssets(const PHAssetCollection& collection,
                                                     const std::optional<std::string>& localIdentifier) {
  std::lock_guard guard(mutex_);
  if (!catalogue_) return {};
  return assetsOf(catalogue_->assetsInAlbum(collection.localIdentifier, localIdentifier), *files_);
}

std::vector<PHAsset> SQLitePhotoLibrary::fetchAllAssets() {
  std::lock_guard guard(mutex_);
  if (!catalogue_) return {};
  return assetsOf(catalogue_->allAssets(), *files_);
}

// The names in the albums go first, while .assets still holds the files that they are known by.
void SQLitePhotoLibrary::clearUp() {
  for (const IntendedLink& link : catalogue_->intendedLinks()) files_->removeAbandoned(link);
  catalogue_->forgetIntendedLinks();
  files_->removeAssetsExcept(catalogue_->assetIdentifiers());
}

}  // namespace tarn
