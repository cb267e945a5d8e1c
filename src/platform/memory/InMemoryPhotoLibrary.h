#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/Dispatch.h"
#include "platform/FileManager.h"
#include "platform/PHPhotoLibrary.h"
#include "platform/PhotoAuthorization.h"

namespace tarn {

/// The photo library's twin in memory. It keeps names and sizes, not the bytes; paths
/// are "<album title>/<file name>" and lead to no file. Takes sources from any FileManager. A change block runs on the
/// caller's thread and must not call the library.
class InMemoryPhotoLibrary : public PHPhotoLibrary {
 public:
  InMemoryPhotoLibrary(FileManager& files, Dispatch& dispatch) : files_(files), dispatch_(dispatch) {}

  PhotoAuthorization& authorization() { return authorization_; }

  PHAuthorizationStatus authorizationStatus(PHAccessLevel level) override;
  void requestAuthorization(PHAccessLevel level, AuthorizationHandler handler) override;
  void performChangesAndWait(const std::function<void(PHChangeBlock&)>& block) override;
  std::vector<PHAssetCollection> fetchAssetCollections(const std::optional<std::string>& title) override;
  std::optional<PHAssetCollection> fetchAssetCollection(const std::string& localIdentifier) override;
  std::vector<std::pair<PHAssetCollection, std::vector<PHAsset>>> fetchContents(
      const std::optional<std::string>& title) override;
  std::vector<PHAssetCollection> fetchAssetCollectionsContaining(const std::string& assetIdentifier) override;
  std::vector<PHAsset> fetchAssets(const PHAssetCollection& collection,
                                   const std::optional<std::string>& localIdentifier) override;
  std::optional<PHAsset> fetchAsset(const std::string& localIdentifier) override;
  std::vector<PHAsset> fetchAllAssets() override;
  std::vector<PHAsset> fetchDeletedAssets() override;

 private:
  class Change;
  struct Album {
    PHAssetCollection collection;
    std::vector<std::string> assets;  ///< identifiers, in the order in which they joined
    bool holds(const std::string& asset) const;
  };
  struct Asset {
    PHAsset asset;
    FileAttributes source;
    bool isDeleted = false;  ///< it stays in the lists of its albums
  };
  struct Content {
    std::vector<Asset> assets;
    std::vector<Album> albums;
  };

  PHAsset placed(const Asset& asset, const Album* album) const;
  std::vector<PHAsset> assetsUnlocked(const Album& album, const std::optional<std::string>& localIdentifier) const;

  FileManager& files_;
  Dispatch& dispatch_;
  PhotoAuthorization authorization_;

  std::mutex mutex_;  // guards all below
  Content content_;
};

}  // namespace tarn
