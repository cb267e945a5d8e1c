#pragma once

#include <string>

#include "platform/Clock.h"
#include "platform/PHPhotoLibrary.h"

namespace tarn {

/// Puts finished videos into albums of the photo library. All operations block until the library has committed, so they
/// must not run on the main queue.
class SimpleMediaSaver {
 public:
  /// Makes an asset of the file at `path`, with this file name and the present date, and adds it to the album with the
  /// title `album`. The album is made if there is none; of several with that title the oldest is taken. Returns the
  /// asset's identifier. The file stays in place.
  ///
  /// Three changes, each durable before the next: the asset, the album, the asset in the album. A failure can leave the
  /// asset in no album, but never an album that names a missing asset. Throws PhotoLibraryError, or the library's own
  /// error.
  static std::string saveVideo(PHPhotoLibrary& library, const Clock& clock, const Path& path,
                               const std::string& filename, const std::string& album);

  /// True if the album holds the asset with this identifier. An album that does not exist is made; false if that fails.
  static bool checkIfFileExistsInAlbum(PHPhotoLibrary& library, const std::string& localIdentifier,
                                       const std::string& album);

 private:
  static PHObjectPlaceholder createAsset(PHPhotoLibrary& library, const Clock& clock, const Path& path,
                                         const std::string& filename);
  static PHAssetCollection getCollection(PHPhotoLibrary& library, const std::string& name);
  static PHAssetCollection createCollection(PHPhotoLibrary& library, const std::string& name);
};

}  // namespace tarn
