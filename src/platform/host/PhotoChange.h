#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/PHPhotoLibrary.h"
#include "platform/host/PhotoCatalogue.h"
#include "platform/host/PhotoFiles.h"

namespace tarn {

/// Why the library does not take a file, as a sentence for people that begins with this name; nothing if it does.
using MediaCheck = std::function<std::optional<std::string>(const Path& file, const std::string& name)>;

/// What one change block asks for. Nothing is written before apply().
class PhotoChange : public PHChangeBlock {
 public:
  PhotoChange(FileManager& fileManager, PhotoFiles& files, PhotoCatalogue& catalogue, const MediaCheck& mediaCheck);
  ~PhotoChange() override;

  PHAssetChangeRequest* creationRequestForAssetFromVideo(const Path& fileURL) override;
  std::optional<PHObjectPlaceholder> creationRequestForAssetCollection(const std::string& title) override;
  /// Throws PHPhotosError for an asset that does not exist.
  bool addAssets(const std::string& collectionIdentifier, const std::vector<PHObjectPlaceholder>& assets) override;

  /// Makes the files and commits the rows. When it throws, files without rows may be left. Throws PHPhotosError for a
  /// file that the check refuses.
  void apply();

 private:
  class AssetRequest;
  struct Addition {
    std::string album;  // identifiers
    std::string asset;
  };

  std::optional<AlbumRecord> findAlbum(const std::string& identifier);
  std::optional<AssetRecord> findAsset(const std::string& identifier);
  bool isAdded(const std::string& album, const std::string& asset) const;
  std::vector<EntryRecord> makeEntries();
  void placeEntries(const std::vector<EntryRecord>& entries);

  FileManager& fileManager_;
  PhotoFiles& files_;
  PhotoCatalogue& catalogue_;
  const MediaCheck& mediaCheck_;
  std::vector<std::unique_ptr<AssetRequest>> requests_;
  std::vector<AlbumRecord> albums_;
  std::vector<Addition> additions_;
};

}  // namespace tarn
