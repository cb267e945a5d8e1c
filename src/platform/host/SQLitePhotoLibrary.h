#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/Dispatch.h"
#include "platform/FileManager.h"
#include "platform/PHPhotoLibrary.h"
#include "platform/PhotoAuthorization.h"
#include "platform/host/PhotoChange.h"

namespace tarn {

class PhotoCatalogue;
class PhotoFiles;

/// The photo library as a directory: `<root>/<album title>/<file name>` is where people look, `<root>/.assets` holds
/// each asset's file once, `<root>/.catalogue.sqlite` the rows.
///
/// A change is made in this order, each step durable before the next: the asset's file; the note of the names that
/// album folders are about to get; those names; the rows, in one transaction that also drops the note, or notes the
/// names that album folders are about to lose; those names go. What a failure or a kill leaves behind has no row: a
/// failed change clears it up at once, a killed one is cleared up when the library is opened. A file in an album's
/// folder that the library did not put there is never touched. One process at a time may have the library open for
/// writing.
///
/// A deleted asset keeps its file and its row for 24 hours. It goes for good with the next change, or when the library
/// is opened next.
///
/// A change block runs on the caller's thread and must not call the library.
class SQLitePhotoLibrary : public PHPhotoLibrary {
 public:
  enum class Access {
    readWrite,  ///< the library is made when it is missing, and cleared up
    readOnly,   ///< for fetches alone: one that does not exist is empty, and another process may be changing it
  };

  /// `files` and `dispatch` must outlive the library. Of a video that `mediaCheck` refuses no asset is made. Throws
  /// tarn::Error.
  SQLitePhotoLibrary(FileManager& files, Dispatch& dispatch, const Path& root, Access access,
                     MediaCheck mediaCheck = nullptr);
  ~SQLitePhotoLibrary() override;

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
  bool expungeOldDeletions();
  void clearUp();
  void tryToClearUp(bool isNeeded);

  FileManager& fileManager_;
  Dispatch& dispatch_;
  const Access access_;
  const MediaCheck mediaCheck_;
  PhotoAuthorization authorization_;

  std::mutex mutex_;  // one change or fetch at a time
  const std::unique_ptr<PhotoFiles> files_;
  bool isUnclear_ = false;                     // what has no row could not be cleared up
  std::unique_ptr<PhotoCatalogue> catalogue_;  // null if there is none to read
};

}  // namespace tarn
