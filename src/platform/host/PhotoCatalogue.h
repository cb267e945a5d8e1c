#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/FileManager.h"
#include "platform/host/SQLite.h"

namespace tarn {

/// One video of the library.
struct AssetRecord {
  std::string identifier;
  std::string filename;  ///< a safe name
  Date creationDate;
  uint64_t size = 0;      ///< bytes
  FileAttributes source;  ///< the file that it was made from, as it was before it was taken
};

struct AlbumRecord {
  std::string identifier;
  std::string title;   ///< as given
  std::string folder;  ///< its directory's name: safe, and of no other album
};

/// An asset's place in an album.
struct EntryRecord {
  std::string album;  ///< identifier
  std::string asset;  ///< identifier
  std::string name;   ///< its file's name in the album's folder: safe, and of no other entry there
};

/// A file that is about to get a name in an album's folder, written down beforehand, so that a kill in between leaves
/// nothing that could not be told from a file of the user's own.
struct IntendedLink {
  std::string folder;
  std::string name;
  uint64_t device = 0;
  uint64_t inode = 0;
};

/// An asset with the place where people find it: its first album, or the one asked for.
struct PlacedAsset {
  AssetRecord asset;
  std::string folder;  ///< empty when it is in no album
  std::string name;
};

/// The rows of the photo library, in SQLite. Operations throw SQLiteError. Not thread-safe.
class PhotoCatalogue {
 public:
  /// Opens the catalogue for reading and writing, and makes it when it is missing.
  static PhotoCatalogue openOrMake(const Path& path);

  /// Opens an existing file for reading; nothing when its maker was killed before the first commit.
  static std::optional<PhotoCatalogue> openForReading(const Path& path);

  /// Albums, oldest first; with a title only those of exactly this title.
  std::vector<AlbumRecord> albums(const std::optional<std::string>& title);
  std::optional<AlbumRecord> album(const std::string& identifier);
  std::set<std::string> folders();

  std::optional<AssetRecord> asset(const std::string& identifier);
  std::set<std::string> assetIdentifiers();
  /// Assets whose source had this inode, oldest first.
  std::vector<AssetRecord> assetsFromInode(uint64_t inode);

  bool holdsEntry(const std::string& album, const std::string& asset);
  /// The names of an album's entries.
  std::set<std::string> entryNames(const std::string& album);

  std::vector<PlacedAsset> assetsInAlbum(const std::string& album, const std::optional<std::string>& asset);
  std::vector<PlacedAsset> allAssets();

  /// Writes the links down. Durable when this returns.
  void intend(const std::vector<IntendedLink>& links);
  std::vector<IntendedLink> intendedLinks();
  void forgetIntendedLinks();

  /// Adds the rows and forgets the intended links that are entries now: all of it or nothing. Durable when this
  /// returns.
  void add(const std::vector<AssetRecord>& assets, const std::vector<AlbumRecord>& albums,
           const std::vector<EntryRecord>& entries);

 private:
  explicit PhotoCatalogue(SQLiteDatabase database) : database_(std::move(database)) {}

  SQLiteDatabase database_;
};

}  // namespace tarn
