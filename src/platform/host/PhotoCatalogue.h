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
  std::string album;     ///< identifier
  std::string asset;     ///< identifier
  std::string name;      ///< its file's name in the album's folder: safe, and of no other entry there
  int64_t position = 0;  ///< in the order of all entries; 0 for one that comes after all others
};

/// A file that is about to get a name in an album's folder, or about to lose it, written down beforehand, so that a
/// kill in between leaves nothing that could not be told from a file of the user's own.
struct IntendedLink {
  std::string folder;
  std::string name;
  uint64_t device = 0;
  uint64_t inode = 0;
};

/// An asset with the place where people find it: its first album, or the one asked for.
struct PlacedAsset {
  AssetRecord asset;
  std::string folder;  ///< empty if it is in no album
  std::string name;
};

/// What one change does to the rows.
struct CatalogueChange {
  std::vector<AssetRecord> newAssets = {};
  std::vector<AlbumRecord> newAlbums = {};
  std::vector<AssetRecord> changedAssets = {};  ///< their names and dates
  std::vector<EntryRecord> goneEntries = {};
  std::vector<IntendedLink> goneLinks = {};  ///< the files of the gone entries
  std::vector<EntryRecord> newEntries = {};
  std::set<std::string> deletedAssets = {};
  Date deletionDate = {};
  std::vector<std::string> recoveredAssets = {};  ///< in the order in which they get their names back
  std::set<std::string> expungedAssets = {};
};

/// The rows of the photo library, in SQLite. Operations throw SQLiteError. Not thread-safe.
class PhotoCatalogue {
 public:
  /// Opens the catalogue for reading and writing; makes it when it is missing, and brings an older one up to date.
  static PhotoCatalogue openOrMake(const Path& path);

  /// Opens an existing file for reading; nothing if its maker was killed before the first commit.
  static std::optional<PhotoCatalogue> openForReading(const Path& path);

  /// Albums, oldest first; with a title only those of exactly this title.
  std::vector<AlbumRecord> albums(const std::optional<std::string>& title);
  std::optional<AlbumRecord> album(const std::string& identifier);
  std::set<std::string> folders();

  /// The albums that hold an asset, in the order in which it joined them.
  std::vector<AlbumRecord> albumsHolding(const std::string& asset);

  std::optional<AssetRecord> asset(const std::string& identifier);
  bool isDeleted(const std::string& asset);
  /// The identifiers of all assets, the deleted ones too.
  std::set<std::string> assetIdentifiers();
  /// Assets, but for deleted ones, whose source had this inode, oldest first.
  std::vector<AssetRecord> assetsFromInode(uint64_t inode);

  /// The places of an asset, in the order in which it got them.
  std::vector<EntryRecord> entries(const std::string& asset);
  /// Those that a deleted asset had.
  std::vector<EntryRecord> deletedEntries(const std::string& asset);
  /// The names of an album's entries.
  std::set<std::string> entryNames(const std::string& album);

  std::vector<PlacedAsset> assetsInAlbum(const std::string& album, const std::optional<std::string>& asset);
  /// Albums as albums() gives them, each with its assets: all of one moment, whatever others commit meanwhile.
  std::vector<std::pair<AlbumRecord, std::vector<PlacedAsset>>> contents(const std::optional<std::string>& title);
  /// The assets that are not deleted, oldest first; with an identifier that one alone.
  std::vector<PlacedAsset> allAssets(const std::optional<std::string>& identifier = std::nullopt);
  /// The deleted assets, the one deleted last first.
  std::vector<PlacedAsset> deletedAssets();
  std::set<std::string> assetsDeletedBefore(Date date);

  /// Writes the links down. Durable when this returns.
  void intend(const std::vector<IntendedLink>& links);
  std::vector<IntendedLink> intendedLinks();
  void forgetIntendedLinks();

  /// Changes the rows, forgets the intended links that are entries now, and writes down the links that must go: all of
  /// it or nothing. Durable when this returns.
  void commit(const CatalogueChange& change);

 private:
  PhotoCatalogue(SQLiteDatabase database, int64_t version) : database_(std::move(database)), version_(version) {}

  std::vector<EntryRecord> entriesIn(const std::string& table, const std::string& asset);
  void insertNew(const CatalogueChange& change);
  void markDeleted(const std::set<std::string>& assets, Date date);
  void expunge(const std::string& asset);

  SQLiteDatabase database_;
  int64_t version_;  ///< an older one only for reading
};

}  // namespace tarn
