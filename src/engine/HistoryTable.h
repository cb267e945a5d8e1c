#pragma once

#include <optional>
#include <string>
#include <vector>

#include "engine/HistoryEntry.h"
#include "platform/Clock.h"
#include "platform/FileManager.h"
#include "platform/host/SQLite.h"

namespace tarn {

/// The rows of the history, in SQLite. A change is on stable storage when its transaction is committed, and a kill
/// before that undoes it: SQLite's rollback journal does both, and with it nothing of what was deleted stays in a
/// second file, as it would in a write-ahead log. Operations throw SQLiteError. Not thread-safe.
class HistoryTable {
 public:
  /// Opens the file for reading and writing, and makes it when it is missing, for its owner alone. An older
  /// version of its tables is made the present one. Throws SQLiteError with SQLITE_CORRUPT or SQLITE_NOTADB for a
  /// damaged one.
  static HistoryTable openOrMake(const Path& path);

  /// Opens an existing file for reading, one of an older version too; nothing when there is none, or its maker was
  /// killed before the first commit.
  static std::optional<HistoryTable> openForReading(const Path& path);

  /// The newest first; all without a limit.
  std::vector<HistoryEntry> entries(const std::optional<int64_t>& limit);
  std::optional<HistoryEntry> entry(int64_t id);
  /// The request that a row keeps beside it; empty if there is no row, or it keeps none.
  std::string request(int64_t id);

  /// Adds a row, in place of one of this id.
  void add(const HistoryEntry& entry, const std::string& request);

  /// Writes the end of a download into its row, and its file name if that is known now. Once it is told as saved it
  /// stays so and its request goes; a failure does not change one that was cancelled, and that it was cancelled changes
  /// only one that has not ended.
  void end(const HistoryEntry& entry);

  /// Makes the row of a download that was cancelled pending again.
  void revive(int64_t id);

  /// Removes a row, or all; but for those of downloads that have not ended.
  void remove(const std::optional<int64_t>& id);

  /// Removes the requests of downloads that began before the date, and all but the newest `most` of the rows that have
  /// an end.
  void tidy(Date oldest, size_t most);

  SQLiteDatabase& database() { return database_; }

 private:
  HistoryTable(SQLiteDatabase database, int64_t version);

  SQLiteDatabase database_;
  std::string columns_;  ///< of an entry, as this version of the tables has them
};

}  // namespace tarn
