#include "engine/HistoryTable.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include "platform/host/Descriptor.h"

namespace tarn {
namespace {

constexpr int64_t schemaVersion = 2;

// Numbers give the order in which downloads began. Dates are nanoseconds since 1970. What a row does not have is an
// empty text, the date 0 or the size -1.
constexpr const char* schema = R"(
CREATE TABLE downloads (
  number INTEGER PRIMARY KEY AUTOINCREMENT,
  id INTEGER NOT NULL UNIQUE,
  state TEXT NOT NULL,
  filename TEXT NOT NULL,
  album TEXT NOT NULL,
  url TEXT NOT NULL,
  started INTEGER NOT NULL,
  ended INTEGER NOT NULL DEFAULT 0,
  reason TEXT NOT NULL DEFAULT '',
  advice TEXT NOT NULL DEFAULT '',
  may_try_again INTEGER NOT NULL DEFAULT 0,
  may_save_as_it_came INTEGER NOT NULL DEFAULT 0,
  is_partly INTEGER NOT NULL DEFAULT 0,
  summary TEXT NOT NULL DEFAULT '',
  size INTEGER NOT NULL DEFAULT -1,
  asset_id TEXT NOT NULL DEFAULT '',
  request TEXT NOT NULL,
  is_refused INTEGER NOT NULL DEFAULT 0
);
)";

// What makes the tables of version 1 those of version 2.
constexpr const char* changes = "ALTER TABLE downloads ADD COLUMN is_refused INTEGER NOT NULL DEFAULT 0";

constexpr const char* columns =
    "id, state, filename, album, url, started, ended, reason, advice, may_try_again AND request != '', "
    "may_save_as_it_came AND request != '', is_partly, summary, size, asset_id, ";

HistoryEntry entryOf(const SQLiteStatement& row) {
  HistoryEntry entry{.id = row.integer(0),
                     .state = historyState(row.text(1)),
                     .filename = row.text(2),
                     .album = row.text(3),
                     .url = row.text(4),
                     .started = dateFromNanoseconds(row.integer(5)),
                     .reason = row.text(7),
                     .advice = row.text(8),
                     .isRefused = row.integer(15) != 0,
                     .mayTryAgain = row.integer(9) != 0,
                     .maySaveAsItCame = row.integer(10) != 0,
                     .isPartly = row.integer(11) != 0,
                     .summary = row.text(12)};
  if (row.integer(6) != 0) entry.ended = dateFromNanoseconds(row.integer(6));
  if (row.integer(13) >= 0) entry.size = row.unsignedInteger(13);
  if (!row.text(14).empty()) entry.assetId = row.text(14);
  return entry;
}

int64_t versionOf(SQLiteDatabase& database) {
  SQLiteStatement version(database, "PRAGMA user_version");
  version.step();
  return version.integer(0);
}

void checkVersion(int64_t version) {
  if (version >= 1 && version <= schemaVersion) return;
  throw SQLiteError(-1, fmt::format("the history has the unknown version {}", version));
}

void setUp(SQLiteDatabase& database, const char* tables) {
  SQLiteTransaction transaction(database);
  database.execute(tables);
  database.execute(fmt::format("PRAGMA user_version = {}", schemaVersion).c_str());
  transaction.commit();
}

void checkPages(SQLiteDatabase& database) {
  SQLiteStatement check(database, "PRAGMA quick_check(1)");
  if (!check.step() || check.text(0) != "ok") throw SQLiteError(SQLITE_CORRUPT, "the history is damaged");
}

/// SQLite would make the file as the umask has it, and makes its journal like the file.
void makePrivate(const Path& path) {
  const Descriptor file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!file.isOpen() || ::fchmod(*file, 0600) != 0) throw SQLiteError(SQLITE_CANTOPEN, "open " + path.native());
}

}  // namespace

HistoryTable::HistoryTable(SQLiteDatabase database, int64_t version)
    : database_(std::move(database)), columns_(fmt::format("{}{}", columns, version == 1 ? "0" : "is_refused")) {}

HistoryTable HistoryTable::openOrMake(const Path& path) {
  makePrivate(path);
  SQLiteDatabase database(path, SQLiteDatabase::Mode::writing);
  database.execute("PRAGMA secure_delete = ON");
  checkPages(database);
  if (versionOf(database) == 0) setUp(database, schema);
  if (versionOf(database) == 1) setUp(database, changes);
  checkVersion(versionOf(database));
  return HistoryTable(std::move(database), schemaVersion);
}

std::optional<HistoryTable> HistoryTable::openForReading(const Path& path) {
  std::error_code ignored;
  if (!std::filesystem::exists(path, ignored)) return std::nullopt;
  SQLiteDatabase database(path, SQLiteDatabase::Mode::reading);
  const int64_t version = versionOf(database);
  if (version == 0) return std::nullopt;
  checkVersion(version);
  return HistoryTable(std::move(database), version);
}

std::vector<HistoryEntry> HistoryTable::entries(const std::optional<int64_t>& limit) {
  SQLiteStatement rows(database_, fmt::format("SELECT {} FROM downloads ORDER BY number DESC LIMIT ?", columns_));
  rows.bind(limit.value_or(-1));
  std::vector<HistoryEntry> entries;
  while (rows.step()) entries.push_back(entryOf(rows));
  return entries;
}

std::optional<HistoryEntry> HistoryTable::entry(int64_t id) {
  SQLiteStatement row(database_, fmt::format("SELECT {} FROM downloads WHERE id = ?", columns_));
  if (!row.bind(id).step()) return std::nullopt;
  return entryOf(row);
}

std::string HistoryTable::request(int64_t id) {
  SQLiteStatement row(database_, "SELECT request FROM downloads WHERE id = ?");
  return row.bind(id).step() ? row.text(0) : "";
}

void HistoryTable::add(const HistoryEntry& entry, const std::string& request) {
  SQLiteStatement insert(database_,
                         "INSERT OR REPLACE INTO downloads (id, state, filename, album, url, started, request) "
                         "VALUES (?, ?, ?, ?, ?, ?, ?)");
  insert.bind(entry.id).bind(textOf(entry.state)).bind(entry.filename).bind(entry.album).bind(entry.url);
  insert.bind(nanosecondsSince1970(entry.started)).bind(request).step();
}

void HistoryTable::end(const HistoryEntry& entry) {
  using State = HistoryEntry::State;
  const char* among = "'pending'";
  if (entry.state == State::failed) among = "'pending', 'failed'";
  if (entry.state == State::saved) among = "'pending', 'failed', 'cancelled', 'saved'";
  SQLiteStatement update(database_, fmt::format("UPDATE downloads SET state = ?, ended = ?, reason = ?, advice = ?, "
                                                "may_try_again = ?, may_save_as_it_came = ?, is_partly = ?, "
                                                "summary = ?, size = ?, asset_id = ?, is_refused = ?, "
                                                "request = iif(?, '', request), "
                                                "filename = coalesce(nullif(?, ''), filename) "
                                                "WHERE id = ? AND state IN ({})",
                                                among));
  update.bind(textOf(entry.state)).bind(nanosecondsSince1970(entry.ended.value_or(Date())));
  update.bind(entry.reason).bind(entry.advice).bind(int64_t{entry.mayTryAgain}).bind(int64_t{entry.maySaveAsItCame});
  update.bind(int64_t{entry.isPartly}).bind(entry.summary);
  update.bind(entry.size ? static_cast<int64_t>(*entry.size) : -1).bind(entry.assetId.value_or(""));
  update.bind(int64_t{entry.isRefused});
  update.bind(int64_t{entry.state == State::saved}).bind(entry.filename).bind(entry.id).step();
}

void HistoryTable::revive(int64_t id) {
  SQLiteStatement update(
      database_,
      "UPDATE downloads SET state = 'pending', ended = 0, reason = '', advice = '', "
      "is_refused = 0, may_try_again = 0, may_save_as_it_came = 0 WHERE id = ? AND state = 'cancelled'");
  update.bind(id).step();
}

void HistoryTable::remove(const std::optional<int64_t>& id) {
  if (!id) return database_.execute("DELETE FROM downloads WHERE state != 'pending'");
  SQLiteStatement(database_, "DELETE FROM downloads WHERE id = ? AND state != 'pending'").bind(*id).step();
}

void HistoryTable::tidy(Date oldest, size_t most) {
  SQLiteStatement(database_, "UPDATE downloads SET request = '' WHERE started < ? AND request != ''")
      .bind(nanosecondsSince1970(oldest))
      .step();
  SQLiteStatement(database_,
                  "DELETE FROM downloads WHERE number IN (SELECT number FROM downloads WHERE state != 'pending' "
                  "ORDER BY ended DESC, number DESC LIMIT -1 OFFSET ?)")
      .bind(static_cast<int64_t>(most))
      .step();
}

}  // namespace tarn
