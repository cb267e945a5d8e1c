#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "platform/Error.h"
#include "platform/FileManager.h"

struct sqlite3;
struct sqlite3_stmt;

namespace tarn {

/// A failure of SQLite; the code is its extended result code.
class SQLiteError : public Error {
 public:
  SQLiteError(int code, std::string description) : Error("SQLite", code, std::move(description)) {}
};

/// A database file. Operations throw SQLiteError. Not thread-safe.
class SQLiteDatabase {
 public:
  enum class Mode {
    writing,  ///< the file is made when missing; a commit is on stable storage when it returns
    reading,  ///< the file must exist; nothing is written but the undoing of a commit that a kill interrupted
  };

  SQLiteDatabase(const Path& path, Mode mode);

  /// Runs one or more statements that take no values and whose rows do not matter.
  void execute(const char* sql);

 private:
  friend class SQLiteStatement;
  struct Closer {
    void operator()(sqlite3* database) const;
  };
  std::unique_ptr<sqlite3, Closer> handle_;
};

/// A prepared statement; must not outlive its database. Values are bound in order, rows are read by step().
class SQLiteStatement {
 public:
  SQLiteStatement(SQLiteDatabase& database, std::string_view sql);

  SQLiteStatement& bind(std::string_view text);
  SQLiteStatement& bind(int64_t value);
  SQLiteStatement& bind(uint64_t value) { return bind(static_cast<int64_t>(value)); }  ///< bit by bit

  /// Moves to the next row; false if there is none.
  bool step();

  /// Columns of the row, counted from 0. NULL reads as an empty text and as 0.
  std::string text(int column) const;
  int64_t integer(int column) const;
  uint64_t unsignedInteger(int column) const { return static_cast<uint64_t>(integer(column)); }

 private:
  struct Finalizer {
    void operator()(sqlite3_stmt* statement) const;
  };
  void check(int code) const;

  sqlite3* database_;
  std::unique_ptr<sqlite3_stmt, Finalizer> handle_;
  int bound_ = 0;
};

/// A transaction; rolled back at the end of the scope unless committed.
class SQLiteTransaction {
 public:
  enum class Kind { writes, reads };
  explicit SQLiteTransaction(SQLiteDatabase& database, Kind kind = Kind::writes);
  ~SQLiteTransaction();
  SQLiteTransaction(const SQLiteTransaction&) = delete;
  SQLiteTransaction& operator=(const SQLiteTransaction&) = delete;

  void commit();

 private:
  SQLiteDatabase& database_;
  bool open_ = true;
};

}  // namespace tarn
