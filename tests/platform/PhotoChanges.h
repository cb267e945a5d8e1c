#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "platform/ForwardingFileManager.h"
#include "platform/PHPhotoLibrary.h"

namespace tarn::test {

/// A file system without second names.
class NoLinks : public ForwardingFileManager {
 public:
  using ForwardingFileManager::ForwardingFileManager;
  void linkItem(const Path& from, const Path&) override { throw PosixError(EPERM, from.native()); }
};

/// The albums with what they hold, and all assets, by their names.
inline std::string contents(PHPhotoLibrary& library) {
  const auto names = [](const std::vector<PHAsset>& assets) {
    std::string text;
    for (const PHAsset& asset : assets) text += " " + asset.filename;
    return text + "\n";
  };
  std::string text;
  for (const auto& album : library.fetchAssetCollections(std::nullopt)) {
    text += album.title + ":" + names(library.fetchAssets(album, std::nullopt));
  }
  return text + "all:" + names(library.fetchAllAssets());
}

/// Works on a catalogue behind the library's back, and then, before it is closed, does that.
inline void executeSQL(
    const Path& root, const std::string& sql, void (*then)() = [] {}) {
  sqlite3* database = nullptr;
  ASSERT_EQ(sqlite3_open((root / ".catalogue.sqlite").c_str(), &database), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(database);
  then();
  sqlite3_close(database);
}

// Changes of one thing each; they return the identifier of what they made.

inline std::string makeAsset(PHPhotoLibrary& library, const Path& source,
                             const std::optional<std::string>& filename = {}) {
  std::string identifier;
  library.performChangesAndWait([&](PHChangeBlock& change) {
    auto* const request = change.creationRequestForAssetFromVideo(source);
    if (filename) request->setFilename(*filename);
    identifier = request->placeholderForCreatedAsset()->localIdentifier;
  });
  return identifier;
}

inline std::string makeAlbum(PHPhotoLibrary& library, const std::string& title) {
  std::string identifier;
  library.performChangesAndWait(
      [&](PHChangeBlock& change) { identifier = change.creationRequestForAssetCollection(title)->localIdentifier; });
  return identifier;
}

inline void change(PHPhotoLibrary& library, void (PHChangeBlock::*request)(const std::vector<PHObjectPlaceholder>&),
                   const std::string& asset) {
  library.performChangesAndWait([&](PHChangeBlock& block) { (block.*request)({{asset}}); });
}

inline void rename(PHPhotoLibrary& library, const std::string& asset, const std::string& filename) {
  library.performChangesAndWait(
      [&](PHChangeBlock& block) { block.changeRequestForAsset(asset)->setFilename(filename); });
}

inline void move(PHPhotoLibrary& library, const std::string& asset, const std::string& from, const std::string& to) {
  library.performChangesAndWait([&](PHChangeBlock& block) {
    EXPECT_TRUE(block.removeAssets(from, {{asset}}));
    EXPECT_TRUE(block.addAssets(to, {{asset}}));
  });
}

/// False when there is no such album.
inline bool join(PHPhotoLibrary& library, const std::string& album, const std::vector<PHObjectPlaceholder>& assets) {
  bool joined = false;
  library.performChangesAndWait([&](PHChangeBlock& change) { joined = change.addAssets(album, assets); });
  return joined;
}

/// All that a save does to the library: asset, album, entry, each a change of its own.
inline std::string save(PHPhotoLibrary& library, const Path& source, const std::string& title = "Trips",
                        const std::optional<std::string>& filename = {}) {
  std::string asset = makeAsset(library, source, filename);
  const auto albums = library.fetchAssetCollections(title);
  join(library, albums.empty() ? makeAlbum(library, title) : albums.front().localIdentifier, {{asset}});
  return asset;
}

}  // namespace tarn::test
