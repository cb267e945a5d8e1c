#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/FileManager.h"

namespace tarn {

enum class PHAuthorizationStatus { notDetermined = 0, restricted = 1, denied = 2, authorized = 3, limited = 4 };
enum class PHAccessLevel { addOnly = 1, readWrite = 2 };

/// Stands for an asset or an album that a change block has asked for. The identifier is final; the object exists once
/// the change has been committed.
struct PHObjectPlaceholder {
  std::string localIdentifier;
};

/// A request to create or change an asset, valid inside its change block only.
class PHAssetChangeRequest {
 public:
  virtual ~PHAssetChangeRequest() = default;
  virtual void setCreationDate(Date date) = 0;
  /// The file name under which people find the asset, in all its albums; a new asset has its source's without one.
  virtual void setFilename(const std::string& filename) = 0;
  virtual std::optional<PHObjectPlaceholder> placeholderForCreatedAsset() = 0;
};

/// What a change block may ask for. Valid inside the block only.
class PHChangeBlock {
 public:
  virtual ~PHChangeBlock() = default;

  /// Asks for an asset from a video file. The file stays in place. Null if no request can be made (the file does not
  /// exist). A source that an asset was made from before, by device, inode, size and change time, answers with that
  /// asset. The request belongs to the block.
  virtual PHAssetChangeRequest* creationRequestForAssetFromVideo(const Path& fileURL) = 0;

  /// Asks for an album. Two albums may have the same title. Nothing if no request can be made.
  virtual std::optional<PHObjectPlaceholder> creationRequestForAssetCollection(const std::string& title) = 0;

  /// Asks to add assets, made in this block or earlier, to an album. An asset that the album holds already stays in it
  /// once. False if there is no such album: nothing is added.
  virtual bool addAssets(const std::string& collectionIdentifier, const std::vector<PHObjectPlaceholder>& assets) = 0;

  /// Asks to take assets out of an album; one that it does not hold is skipped. False if there is no such album.
  virtual bool removeAssets(const std::string& collectionIdentifier,
                            const std::vector<PHObjectPlaceholder>& assets) = 0;

  /// Asks to change an asset. Null if there is none, or it is deleted. The request belongs to the block.
  virtual PHAssetChangeRequest* changeRequestForAsset(const std::string& localIdentifier) = 0;

  /// Asks to delete assets: they leave all albums, and for a day at least they can be recovered. One that is deleted
  /// already stays so.
  virtual void deleteAssets(const std::vector<PHObjectPlaceholder>& assets) = 0;
  /// Asks to put deleted assets back into the albums that they left. One that is not deleted stays as it is.
  virtual void recoverAssets(const std::vector<PHObjectPlaceholder>& assets) = 0;
  /// Asks to delete assets, or those that are deleted, for good.
  virtual void expungeAssets(const std::vector<PHObjectPlaceholder>& assets) = 0;
};

struct PHAssetCollection {
  std::string localIdentifier;
  std::string title;
};

struct PHAsset {
  std::string localIdentifier;
  std::string filename;
  Date creationDate;
  uint64_t size = 0;  ///< bytes
  Path path;          ///< the asset's file, in the first album it is in, or outside any album
};

/// The photo library. Thread-safe; performChangesAndWait and the fetches block and do not belong on the main queue.
class PHPhotoLibrary {
 public:
  using AuthorizationHandler = std::function<void(PHAuthorizationStatus)>;

  virtual ~PHPhotoLibrary() = default;

  virtual PHAuthorizationStatus authorizationStatus(PHAccessLevel level) = 0;

  /// Asks the user; the answer comes on some other thread.
  virtual void requestAuthorization(PHAccessLevel level, AuthorizationHandler handler) = 0;

  /// Runs the block on a thread of the library's choice and commits what it asked for as one transaction, durable when
  /// this returns. Throws tarn::Error when the change was not made; nothing of it is left then.
  virtual void performChangesAndWait(const std::function<void(PHChangeBlock&)>& block) = 0;

  /// Albums with exactly this title, oldest first; with no title, all albums.
  virtual std::vector<PHAssetCollection> fetchAssetCollections(const std::optional<std::string>& title) = 0;
  virtual std::optional<PHAssetCollection> fetchAssetCollection(const std::string& localIdentifier) = 0;
  /// The same albums, each with its assets in the order in which they joined it, as the library is at one moment: an
  /// asset that is moved meanwhile is in one of them.
  virtual std::vector<std::pair<PHAssetCollection, std::vector<PHAsset>>> fetchContents(
      const std::optional<std::string>& title) = 0;
  /// The albums that hold an asset, in the order in which it joined them.
  virtual std::vector<PHAssetCollection> fetchAssetCollectionsContaining(const std::string& assetIdentifier) = 0;

  /// Assets of an album, in the order in which they joined it; with an asset's identifier only that one, if the album
  /// holds it.
  virtual std::vector<PHAsset> fetchAssets(const PHAssetCollection& collection,
                                           const std::optional<std::string>& localIdentifier) = 0;

  /// One asset of the library; nothing if there is none, or it is deleted.
  virtual std::optional<PHAsset> fetchAsset(const std::string& localIdentifier) = 0;
  /// All assets of the library, oldest first, without the deleted ones.
  virtual std::vector<PHAsset> fetchAllAssets() = 0;
  /// The deleted assets that can be recovered, the one deleted last first. Their files are outside any album.
  virtual std::vector<PHAsset> fetchDeletedAssets() = 0;
};

}  // namespace tarn
