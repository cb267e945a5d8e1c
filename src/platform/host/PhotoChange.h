#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
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
  bool removeAssets(const std::string& collectionIdentifier, const std::vector<PHObjectPlaceholder>& assets) override;
  PHAssetChangeRequest* changeRequestForAsset(const std::string& localIdentifier) override;
  /// These throw PHPhotosError for an asset that does not exist.
  void deleteAssets(const std::vector<PHObjectPlaceholder>& assets) override;
  void recoverAssets(const std::vector<PHObjectPlaceholder>& assets) override;
  void expungeAssets(const std::vector<PHObjectPlaceholder>& assets) override;

  /// Makes the files and commits the rows; `now` is the date of a deletion. When it throws, files without rows may be
  /// left. Throws PHPhotosError for a file that the check refuses. Returns whether files must go whose rows are gone.
  bool apply(Date now);

 private:
  class AssetRequest;
  struct Place {
    std::string album;  // identifiers
    std::string asset;
    bool operator==(const Place&) const = default;
  };

  std::optional<AlbumRecord> findAlbum(const std::string& identifier);
  std::optional<AssetRecord> findAsset(const std::string& identifier);
  AssetRecord assetOf(const PHObjectPlaceholder& placeholder);
  std::optional<EntryRecord> entryAt(const Place& place);
  void takeNewAssets();
  void addGone(const EntryRecord& entry);
  void addNew(const std::string& wanted, EntryRecord entry);
  void addAgain(const std::string& wanted, const EntryRecord& entry);
  bool keepsItsName(const EntryRecord& entry, const std::string& wanted);
  std::set<std::string>& namesTaken(const std::string& album);
  void renameEntries(const AssetRecord& asset);
  void makeEntries();
  void placeEntries();

  FileManager& fileManager_;
  PhotoFiles& files_;
  PhotoCatalogue& catalogue_;
  const MediaCheck& mediaCheck_;
  std::vector<std::unique_ptr<AssetRequest>> requests_;
  std::vector<Place> additions_;
  std::vector<Place> removals_;
  CatalogueChange change_;
  std::vector<EntryRecord> entriesToPlace_;                  ///< the new ones that have no file yet
  std::map<std::string, std::set<std::string>> namesTaken_;  // by album
};

}  // namespace tarn
