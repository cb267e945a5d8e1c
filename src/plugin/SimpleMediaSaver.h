#pragma once

#include <string>

#include "platform/Clock.h"
#include "platform/PHPhotoLibrary.h"

namespace tarn {

/// Puts finished videos into albums of the photo library. All operations block until the library has committed, and do
/// not belong on the main queue.
class SimpleMediaSaver {
 public:
  /// Makes an asset of the file at `fileURL`, with this file name and the present date, and adds it to the album with
  /// the title `album`, which is made when there is none; of several with that title the oldest is taken. Returns the
  /// asset's identifier. The file stays in place.
  ///
  /// Three changes, each durable before the next: asset, album, entry. A failure can leave the asset in no album, never
  /// an entry without its asset. Throws PhotoLibraryError, or the library's own error.
  static std::string saveVideo(PHPhotoLibrary& library, const Clock& clock, const Path& fileURL,
                               const std::string& filename, const std::string& album);

  /// Whether the album holds the asset with this identifier. An album that does not exist is made; false when that
  /// fails.
  static bool checkIfFileExistsInAlbum(PHPhotoLibrary& library, const std::string& localIdentifier,
                                       const std::string& album);

 private:
  static PHObjectPlaceholder createAsset(PHPhotoLibrary& library, const Clock& clock, const Path& fileURL,
                                         const std::string& filename);
  static PHAssetCollection getCollection(PHPhotoLibrary& library, const std::string& name);
  static PHAssetCollection createCollection(PHPhotoLibrary& library, const std::string& name);
};

}  // namespace tarn
