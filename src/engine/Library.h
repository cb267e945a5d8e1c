#pragma once

#include <tarn/library.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/PHPhotoLibrary.h"

namespace tarn {

/// The photo library as people handle it. Throws Error, in words for people.
class Library {
 public:
  /// The photo library must outlive this.
  explicit Library(PHPhotoLibrary& photos) : photos_(photos) {}

  /// The albums, oldest first, without those that hold nothing; with a title only those of this title. Albums of one
  /// title are told as one.
  std::vector<LibraryAlbum> albums(const std::optional<std::string>& title = std::nullopt);
  bool hasAlbum(const std::string& title) { return !photos_.fetchAssetCollections(title).empty(); }

  /// The videos that can be restored, the one removed last first.
  std::vector<LibraryAsset> removed();

  /// Returns the video as it is now; nothing if it is removed or erased.
  std::optional<LibraryAsset> change(const AssetChange& change);

 private:
  std::optional<LibraryAsset> find(const std::string& assetId);
  void ask(void (PHChangeBlock::*request)(const std::vector<PHObjectPlaceholder>&), const std::string& assetId);
  void rename(const std::string& assetId, const std::string& filename);
  void move(const std::string& assetId, const std::string& album);

  PHPhotoLibrary& photos_;
};

}  // namespace tarn
