#include "platform/host/PhotoCatalogue.h"

#include <fmt/format.h>

namespace tarn {
namespace {

constexpr int64_t schemaVersion = 2;
constexpr int64_t firstVersion = 1;  // nothing can be deleted yet

// Positions give the order in which things came. Dates and times are nanoseconds since 1970.
constexpr const char* schema = R"(
CREATE TABLE assets (
  position INTEGER PRIMARY KEY AUTOINCREMENT,
  identifier TEXT NOT NULL UNIQUE,
  filename TEXT NOT NULL,
  creation_date INTEGER NOT NULL,
  size INTEGER NOT NULL,
  source_device INTEGER NOT NULL,
  source_inode INTEGER NOT NULL,
  source_size INTEGER NOT NULL,
  source_change_time INTEGER NOT NULL
);
CREATE INDEX assets_by_source ON assets (source_inode);
CREATE TABLE albums (
  position INTEGER PRIMARY KEY AUTOINCREMENT,
  identifier TEXT NOT NULL UNIQUE,
  title TEXT NOT NULL,
  folder TEXT NOT NULL UNIQUE
);
CREATE INDEX albums_by_title ON albums (title);
CREATE TABLE entries (
  position INTEGER PRIMARY KEY AUTOINCREMENT,
  album TEXT NOT NULL REFERENCES albums (identifier),
  asset TEXT NOT NULL REFERENCES assets (identifier),
  name TEXT NOT NULL,
  UNIQUE (album, asset),
  UNIQUE (album, name)
);
CREATE INDEX entries_by_asset ON entries (asset);
CREATE TABLE intended_links (
  folder TEXT NOT NULL,
  name TEXT NOT NULL,
  device INTEGER NOT NULL,
  inode INTEGER NOT NULL
);
)";

// The places of deleted assets, to which they return when they are recovered.
constexpr const char* deletion = R"(
ALTER TABLE assets ADD COLUMN deletion_date INTEGER;
CREATE TABLE deleted_entries (
  position INTEGER PRIMARY KEY,
  album TEXT NOT NULL REFERENCES albums (identifier),
  asset TEXT NOT NULL REFERENCES assets (identifier),
  name TEXT NOT NULL
);
CREATE INDEX deleted_entries_by_asset ON deleted_entries (asset);
)";

constexpr const char* assetColumns =
    "assets.identifier, assets.filename, assets.creation_date, assets.size, "
    "assets.source_device, assets.source_inode, assets.source_size, assets.source_change_time";

AssetRecord assetOf(const SQLiteStatement& row) {
  AssetRecord asset;
  asset.identifier = row.text(0);
  asset.filename = row.text(1);
  asset.creationDate = dateFromNanoseconds(row.integer(2));
  asset.size = row.unsignedInteger(3);
  asset.source.device = row.unsignedInteger(4);
  asset.source.inode = row.unsignedInteger(5);
  asset.source.size = row.unsignedInteger(6);
  asset.source.changeTime = row.integer(7);
  return asset;
}

AlbumRecord albumOf(const SQLiteStatement& row) {
  return {row.text(0), row.text(1), row.text(2)};
}

std::vector<AlbumRecord> albumsOf(SQLiteStatement& rows) {
  std::vector<AlbumRecord> albums;
  while (rows.step()) albums.push_back(albumOf(rows));
  return albums;
}

std::vector<PlacedAsset> placedAssets(SQLiteStatement& statement) {
  std::vector<PlacedAsset> assets;
  while (statement.step()) assets.push_back({assetOf(statement), statement.text(8), statement.text(9)});
  return assets;
}

std::set<std::string> texts(SQLiteStatement& statement) {
  std::set<std::string> texts;
  while (statement.step()) texts.insert(statement.text(0));
  return texts;
}

int64_t versionOf(SQLiteDatabase& database) {
  SQLiteStatement version(database, "PRAGMA user_version");
  version.step();
  return version.integer(0);
}

void insertLinks(SQLiteDatabase& database, const std::vector<IntendedLink>& links) {
  for (const IntendedLink& link : links) {
    SQLiteStatement insert(database, "INSERT INTO intended_links VALUES (?, ?, ?, ?)");
    insert.bind(link.folder).bind(link.name).bind(link.device).bind(link.inode).step();
  }
}

int64_t checkVersion(int64_t version, const Path& path) {
  if (version >= firstVersion && version <= schemaVersion) return version;
  throw SQLiteError(-1, fmt::format("open {}: unknown version {}", path.native(), version));
}

}  // namespace

PhotoCatalogue PhotoCatalogue::openOrMake(const Path& path) {
  SQLiteDatabase database(path, SQLiteDatabase::Mode::writing);
  const int64_t version = versionOf(database);
  if (version != 0) checkVersion(version, path);
  if (version < schemaVersion) {
    SQLiteTransaction transaction(database);
    if (version == 0) database.execute(schema);
    database.execute(deletion);
    database.execute(fmt::format("PRAGMA user_version = {}", schemaVersion).c_str());
    transaction.commit();
  }
  return PhotoCatalogue(std::move(database), schemaVersion);
}

std::optional<PhotoCatalogue> PhotoCatalogue::openForReading(const Path& path) {
  SQLiteDatabase database(path, SQLiteDatabase::Mode::reading);
  const int64_t version = versionOf(database);
  if (version == 0) return std::nullopt;
  return PhotoCatalogue(std::move(database), checkVersion(version, path));
}

std::vector<AlbumRecord> PhotoCatalogue::albums(const std::optional<std::string>& title) {
  SQLiteStatement rows(database_, title
                                      ? "SELECT identifier, title, folder FROM albums WHERE title = ? ORDER BY position"
                                      : "SELECT identifier, title, folder FROM albums ORDER BY position");
  if (title) rows.bind(*title);
  return albumsOf(rows);
}

std::optional<AlbumRecord> PhotoCatalogue::album(const std::string& identifier) {
  SQLiteStatement row(database_, "SELECT identifier, title, folder FROM albums WHERE identifier = ?");
  if (!row.bind(identifier).step()) return std::nullopt;
  return albumOf(row);
}

std::vector<AlbumRecord> PhotoCatalogue::albumsHolding(const std::string& asset) {
  SQLiteStatement rows(database_,
                       "SELECT identifier, title, folder FROM entries JOIN albums ON albums.identifier = entries.album "
                       "WHERE entries.asset = ? ORDER BY entries.position");
  rows.bind(asset);
  return albumsOf(rows);
}

std::set<std::string> PhotoCatalogue::folders() {
  SQLiteStatement rows(database_, "SELECT folder FROM albums");
  return texts(rows);
}

std::optional<AssetRecord> PhotoCatalogue::asset(const std::string& identifier) {
  SQLiteStatement row(database_, fmt::format("SELECT {} FROM assets WHERE identifier = ?", assetColumns));
  if (!row.bind(identifier).step()) return std::nullopt;
  return assetOf(row);
}

bool PhotoCatalogue::isDeleted(const std::string& asset) {
  SQLiteStatement row(database_, "SELECT 1 FROM assets WHERE identifier = ? AND deletion_date IS NOT NULL");
  return row.bind(asset).step();
}

std::set<std::string> PhotoCatalogue::assetIdentifiers() {
  SQLiteStatement rows(database_, "SELECT identifier FROM assets");
  return texts(rows);
}

std::vector<AssetRecord> PhotoCatalogue::assetsFromInode(uint64_t inode) {
  SQLiteStatement rows(
      database_, fmt::format("SELECT {} FROM assets WHERE source_inode = ? AND deletion_date IS NULL ORDER BY position",
                             assetColumns));
  rows.bind(inode);
  std::vector<AssetRecord> assets;
  while (rows.step()) assets.push_back(assetOf(rows));
  return assets;
}

std::vector<EntryRecord> PhotoCatalogue::entriesIn(const std::string& table, const std::string& asset) {
  SQLiteStatement rows(
      database_, fmt::format("SELECT album, asset, name, position FROM {} WHERE asset = ? ORDER BY position", table));
  rows.bind(asset);
  std::vector<EntryRecord> entries;
  while (rows.step()) entries.push_back({rows.text(0), rows.text(1), rows.text(2), rows.integer(3)});
  return entries;
}

std::vector<EntryRecord> PhotoCatalogue::entries(const std::string& asset) {
  return entriesIn("entries", asset);
}

std::vector<EntryRecord> PhotoCatalogue::deletedEntries(const std::string& asset) {
  return entriesIn("deleted_entries", asset);
}

std::set<std::string> PhotoCatalogue::entryNames(const std::string& album) {
  SQLiteStatement rows(database_, "SELECT name FROM entries WHERE album = ?");
  rows.bind(album);
  return texts(rows);
}

std::vector<PlacedAsset> PhotoCatalogue::assetsInAlbum(const std::string& album,
                                                       const std::optional<std::string>& asset) {
  SQLiteStatement rows(database_, fmt::format("SELECT {}, albums.folder, entries.name FROM entries "
                                              "JOIN assets ON assets.identifier = entries.asset "
                                              "JOIN albums ON albums.identifier = entries.album "
                                              "WHERE entries.album = ? {} ORDER BY entries.position",
                                              assetColumns, asset ? "AND entries.asset = ?" : ""));
  rows.bind(album);
  if (asset) rows.bind(*asset);
  return placedAssets(rows);
}

std::vector<std::pair<AlbumRecord, std::vector<PlacedAsset>>> PhotoCatalogue::contents(
    const std::optional<std::string>& title) {
  const SQLiteTransaction transaction(database_, SQLiteTransaction::Kind::reads);
  std::vector<std::pair<AlbumRecord, std::vector<PlacedAsset>>> contents;
  for (AlbumRecord& album : albums(title)) {
    auto assets = assetsInAlbum(album.identifier, std::nullopt);
    contents.emplace_back(std::move(album), std::move(assets));
  }
  return contents;
}

std::vector<PlacedAsset> PhotoCatalogue::allAssets(const std::optional<std::string>& identifier) {
  SQLiteStatement rows(database_, fmt::format("SELECT {}, albums.folder, entries.name FROM assets "
                                              "LEFT JOIN entries ON entries.position = "
                                              "(SELECT min(position) FROM entries WHERE asset = assets.identifier) "
                                              "LEFT JOIN albums ON albums.identifier = entries.album WHERE {} {} "
                                              "ORDER BY assets.position",
                                              assetColumns, version_ > firstVersion ? "deletion_date IS NULL" : "TRUE",
                                              identifier ? "AND assets.identifier = ?" : ""));
  if (identifier) rows.bind(*identifier);
  return placedAssets(rows);
}

std::vector<PlacedAsset> PhotoCatalogue::deletedAssets() {
  if (version_ == firstVersion) return {};
  SQLiteStatement rows(database_, fmt::format("SELECT {}, '', '' FROM assets WHERE deletion_date IS NOT NULL "
                                              "ORDER BY deletion_date DESC, position DESC",
                                              assetColumns));
  return placedAssets(rows);
}

std::set<std::string> PhotoCatalogue::assetsDeletedBefore(Date date) {
  SQLiteStatement rows(database_, "SELECT identifier FROM assets WHERE deletion_date < ?");
  rows.bind(nanosecondsSince1970(date));
  return texts(rows);
}

void PhotoCatalogue::intend(const std::vector<IntendedLink>& links) {
  SQLiteTransaction transaction(database_);
  insertLinks(database_, links);
  transaction.commit();
}

std::vector<IntendedLink> PhotoCatalogue::intendedLinks() {
  SQLiteStatement rows(database_, "SELECT folder, name, device, inode FROM intended_links");
  std::vector<IntendedLink> links;
  while (rows.step()) {
    links.push_back({rows.text(0), rows.text(1), rows.unsignedInteger(2), rows.unsignedInteger(3)});
  }
  return links;
}

void PhotoCatalogue::forgetIntendedLinks() {
  database_.execute("DELETE FROM intended_links");
}

// Deleted assets keep a copy of their entries before those go; and entries go before others get their places.
void PhotoCatalogue::commit(const CatalogueChange& change) {
  SQLiteTransaction transaction(database_);
  markDeleted(change.deletedAssets, change.deletionDate);
  for (const EntryRecord& entry : change.goneEntries) {
    SQLiteStatement remove(database_, "DELETE FROM entries WHERE album = ? AND asset = ?");
    remove.bind(entry.album).bind(entry.asset).step();
  }
  for (const AssetRecord& asset : change.changedAssets) {
    SQLiteStatement update(database_, "UPDATE assets SET filename = ?, creation_date = ? WHERE identifier = ?");
    update.bind(asset.filename).bind(nanosecondsSince1970(asset.creationDate)).bind(asset.identifier).step();
  }
  for (const std::string& asset : change.recoveredAssets) {
    SQLiteStatement(database_, "DELETE FROM deleted_entries WHERE asset = ?").bind(asset).step();
    SQLiteStatement(database_, "UPDATE assets SET deletion_date = NULL WHERE identifier = ?").bind(asset).step();
  }
  insertNew(change);
  for (const std::string& asset : change.expungedAssets) expunge(asset);
  database_.execute(
      "DELETE FROM intended_links WHERE EXISTS "
      "(SELECT 1 FROM entries JOIN albums ON albums.identifier = entries.album "
      "WHERE albums.folder = intended_links.folder AND entries.name = intended_links.name)");
  insertLinks(database_, change.goneLinks);
  transaction.commit();
}

void PhotoCatalogue::insertNew(const CatalogueChange& change) {
  for (const AssetRecord& asset : change.newAssets) {
    SQLiteStatement insert(database_, "INSERT INTO assets VALUES (NULL, ?, ?, ?, ?, ?, ?, ?, ?, NULL)");
    insert.bind(asset.identifier).bind(asset.filename).bind(nanosecondsSince1970(asset.creationDate)).bind(asset.size);
    insert.bind(asset.source.device).bind(asset.source.inode).bind(asset.source.size).bind(asset.source.changeTime);
    insert.step();
  }
  for (const AlbumRecord& album : change.newAlbums) {
    SQLiteStatement insert(database_, "INSERT INTO albums VALUES (NULL, ?, ?, ?)");
    insert.bind(album.identifier).bind(album.title).bind(album.folder).step();
  }
  for (const EntryRecord& entry : change.newEntries) {
    SQLiteStatement insert(database_, "INSERT INTO entries VALUES (nullif(?, 0), ?, ?, ?)");
    insert.bind(entry.position).bind(entry.album).bind(entry.asset).bind(entry.name).step();
  }
}

void PhotoCatalogue::markDeleted(const std::set<std::string>& assets, Date date) {
  for (const std::string& asset : assets) {
    SQLiteStatement keep(
        database_, "INSERT INTO deleted_entries SELECT position, album, asset, name FROM entries WHERE asset = ?");
    keep.bind(asset).step();
    SQLiteStatement mark(database_, "UPDATE assets SET deletion_date = ? WHERE identifier = ?");
    mark.bind(nanosecondsSince1970(date)).bind(asset).step();
  }
}

void PhotoCatalogue::expunge(const std::string& asset) {
  SQLiteStatement(database_, "DELETE FROM deleted_entries WHERE asset = ?").bind(asset).step();
  SQLiteStatement(database_, "DELETE FROM assets WHERE identifier = ?").bind(asset).step();
}

}  // namespace tarn
