#include "platform/host/SQLitePhotoLibrary.h"

#include <utility>

#include "platform/Log.h"
#include "platform/host/PhotoCatalogue.h"
#include "platform/host/PhotoFiles.h"

namespace tarn {
namespace {

constexpr const char* catalogueName = ".catalogue.sqlite";
constexpr std::chrono::hours keptWhenDeleted{24};

std::vector<PHAssetCollection> collectionsOf(const std::vector<AlbumRecord>& albums) {
  std::vector<PHAssetCollection> collections;
  collections.reserve(albums.size());
  for (const AlbumRecord& album : albums) collections.push_back({album.identifier, album.title});
  return collections;
}

std::vector<PHAsset> assetsOf(const std::vector<PlacedAsset>& placed, PhotoFiles& files) {
  std::vector<PHAsset> assets;
  for (const PlacedAsset& each : placed) {
    const AssetRecord& asset = each.asset;
    assets.push_back({asset.identifier, asset.filename, asset.creationDate, asset.size, files.placeOf(each)});
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
    expungeOldDeletions();
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
  tryToClearUp(isUnclear_);
  PhotoChange change(fileManager_, *files_, *catalogue_, mediaCheck_);
  block(change);
  bool isClear = false;
  try {
    isClear = !change.apply(std::chrono::system_clock::now());
  } catch (...) {
    const auto failure = std::current_exception();
    tryToClearUp(true);
    std::rethrow_exception(failure);
  }
  tryToClearUp(!isClear);
}

std::vector<PHAssetCollection> SQLitePhotoLibrary::fetchAssetCollections(const std::optional<std::string>& title) {
  std::lock_guard guard(mutex_);
  if (!catalogue_) return {};
  return collectionsOf(catalogue_->albums(title));
}

std::vector<std::pair<PHAssetCollection, std::vector<PHAsset>>> SQLitePhotoLibrary::fetchContents(
    const std::optional<std::string>& title) {
  std::lock_guard guard(mutex_);
  std::vector<std::pair<PHAssetCollection, std::vector<PHAsset>>> contents;
  if (!catalogue_) return contents;
  for (const auto& [album, placed] : catalogue_->contents(title)) {
    contents.emplace_back(PHAssetCollection{album.identifier, album.title}, assetsOf(placed, *files_));
  }
  return contents;
}

std::optional<PHAssetCollection> SQLitePhotoLibrary::fetchAssetCollection(const std::string& localIdentifier) {
  std::lock_guard guard(mutex_);
  const auto album = catalogue_ ? catalogue_->album(localIdentifier) : std::nullopt;
  if (!album) return std::nullopt;
  return PHAssetCollection{album->identifier, album->title};
}

std::vector<PHAssetCollection> SQLitePhotoLibrary::fetchAssetCollectionsContaining(const std::string& assetIdentifier) {
  std::lock_guard guard(mutex_);
  if (!catalogue_) return {};
  return collectionsOf(catalogue_->albumsHolding(assetIdentifier));
}

std::vector<PHAsset> SQLitePhotoLibrary::fetchAssets(const PHAssetCollection& collection,
                                                     const std::optional<std::string>& localIdentifier) {
  std::lock_guard guard(mutex_);
  if (!catalogue_) return {};
  return assetsOf(catalogue_->assetsInAlbum(collection.localIdentifier, localIdentifier), *files_);
}

std::optional<PHAsset> SQLitePhotoLibrary::fetchAsset(const std::string& localIdentifier) {
  std::lock_guard guard(mutex_);
  if (!catalogue_) return std::nullopt;
  auto assets = assetsOf(catalogue_->allAssets(localIdentifier), *files_);
  return assets.empty() ? std::nullopt : std::optional(std::move(assets.front()));
}

std::vector<PHAsset> SQLitePhotoLibrary::fetchAllAssets() {
  std::lock_guard guard(mutex_);
  if (!catalogue_) return {};
  return assetsOf(catalogue_->allAssets(), *files_);
}

std::vector<PHAsset> SQLitePhotoLibrary::fetchDeletedAssets() {
  std::lock_guard guard(mutex_);
  if (!catalogue_) return {};
  return assetsOf(catalogue_->deletedAssets(), *files_);
}

/// Returns whether their files must go.
bool SQLitePhotoLibrary::expungeOldDeletions() {
  const auto old = catalogue_->assetsDeletedBefore(std::chrono::system_clock::now() - keptWhenDeleted);
  if (!old.empty()) catalogue_->commit({.expungedAssets = old});
  return !old.empty();
}

/// What is left is cleared up before the next change, or when the library is opened next.
void SQLitePhotoLibrary::tryToClearUp(bool isNeeded) {
  try {
    isUnclear_ = expungeOldDeletions() || isNeeded;
    if (isUnclear_) clearUp();
    isUnclear_ = false;
  } catch (...) {
    isUnclear_ = true;
    log("WARNING: Photo library could not be cleared up: {}", describe(std::current_exception()));
  }
}

// The names in the albums go first, while .assets still holds the files that they are known by.
void SQLitePhotoLibrary::clearUp() {
  for (const IntendedLink& link : catalogue_->intendedLinks()) files_->removeAbandoned(link);
  catalogue_->forgetIntendedLinks();
  files_->removeAssetsExcept(catalogue_->assetIdentifiers());
}

}  // namespace tarn
