#include "plugin/SimpleMediaSaver.h"

#include <exception>
#include <optional>

#include "platform/FileManager.h"
#include "plugin/detail/PhotoLibraryError.h"

namespace tarn {

std::string SimpleMediaSaver::saveVideo(PHPhotoLibrary& library, const Clock& clock, const Path& path,
                                        const std::string& filename, const std::string& album) {
  const PHObjectPlaceholder asset = createAsset(library, clock, path, filename);
  const PHAssetCollection collection = getCollection(library, album);
  library.performChangesAndWait([&](PHChangeBlock& change) {
    // If the album was deleted in between, nothing is added to it, and the asset stays in the library.
    change.addAssets(collection.localIdentifier, {asset});
  });
  return asset.localIdentifier;
}

bool SimpleMediaSaver::checkIfFileExistsInAlbum(PHPhotoLibrary& library, const std::string& localIdentifier,
                                                const std::string& album) {
  std::optional<PHAssetCollection> collection;
  try {
    collection = getCollection(library, album);
  } catch (const PhotoLibraryError&) {
    return false;
  }
  return !library.fetchAssets(*collection, localIdentifier).empty();
}

PHObjectPlaceholder SimpleMediaSaver::createAsset(PHPhotoLibrary& library, const Clock& clock, const Path& path,
                                                  const std::string& filename) {
  std::optional<PHObjectPlaceholder> placeholder;
  library.performChangesAndWait([&](PHChangeBlock& change) {
    PHAssetChangeRequest* const request = change.creationRequestForAssetFromVideo(path);
    if (!request) return;
    request->setCreationDate(clock.now());
    request->setFilename(filename);
    placeholder = request->placeholderForCreatedAsset();
  });
  if (placeholder) return *placeholder;
  throw PhotoLibraryError("No placeholder for asset creation request, or no asset request (check if video exists at " +
                          fileURLText(path) + ")");
}

PHAssetCollection SimpleMediaSaver::getCollection(PHPhotoLibrary& library, const std::string& name) {
  const auto existing = library.fetchAssetCollections(name);
  if (!existing.empty()) return existing.front();
  try {
    return createCollection(library, name);
  } catch (...) {
    throw PhotoLibraryError("Failed to create album: " + describe(std::current_exception()));
  }
}

PHAssetCollection SimpleMediaSaver::createCollection(PHPhotoLibrary& library, const std::string& name) {
  std::optional<PHObjectPlaceholder> placeholder;
  library.performChangesAndWait(
      [&](PHChangeBlock& change) { placeholder = change.creationRequestForAssetCollection(name); });
  if (!placeholder) throw PhotoLibraryError("Failed to create album");
  const auto created = library.fetchAssetCollection(placeholder->localIdentifier);
  if (!created) throw PhotoLibraryError("No created asset");
  return *created;
}

}  // namespace tarn
