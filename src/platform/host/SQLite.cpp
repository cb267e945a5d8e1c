#include "platform/host/SQLite.h"

#include <sqlite3.h>

namespace tarn {
namespace {

// Another process may be reading or committing; a commit of the catalogue takes a few milliseconds.
constexpr int longestWait = 5000;  // milliseconds

[[noreturn]] void fail(sqlite3* database, const std::string& what) {
  throw SQLiteError(sqlite3_extended_errcode(database), what + ": " + sqlite3_errmsg(database));
}

}  // namespace

void SQLiteDatabase::Closer::operator()(sqlite3* database) const {
  sqlite3_close_v2(database);
}

SQLiteDatabase::SQLiteDatabase(const Path& path, Mode mode) {
  sqlite3* opened = nullptr;
  // A reader opens for writing too, without leave to create: only so can SQLite undo an interrupted commit. Where it
  // may not write it falls back to reading by itself.
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_EXRESCODE | (mode == Mode::writing ? SQLITE_OPEN_CREATE : 0);
  const int code = sqlite3_open_v2(path.c_str(), &opened, flags, nullptr);
  handle_.reset(opened);
  if (code != SQLITE_OK) fail(opened, "open " + path.native());
  sqlite3_busy_timeout(opened, longestWait);
  // EXTRA flushes the directory after a commit has removed the rollback journal. With FULL a power cut could bring the
  // journal back and undo a commit that was reported as done.
  execute(mode == Mode::writing ? "PRAGMA synchronous = EXTRA; PRAGMA foreign_keys = ON" : "PRAGMA query_only = ON");
}

void SQLiteDatabase::execute(const char* sql) {
  if (sqlite3_exec(handle_.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK) fail(handle_.get(), "catalogue");
}

void SQLiteStatement::Finalizer::operator()(sqlite3_stmt* statement) const {
  sqlite3_finalize(statement);
}

SQLiteStatement::SQLiteStatement(SQLiteDatabase& database, std::string_view sql) : database_(database.handle_.get()) {
  sqlite3_stmt* prepared = nullptr;
  check(sqlite3_prepare_v2(database_, sql.data(), static_cast<int>(sql.size()), &prepared, nullptr));
  handle_.reset(prepared);
}

SQLiteStatement& SQLiteStatement::bind(std::string_view text) {
  // An empty view may have no address, which SQLite would take for NULL.
  const char* const start = text.empty() ? "" : text.data();
  check(sqlite3_bind_text64(handle_.get(), ++bound_, start, text.size(), SQLITE_TRANSIENT, SQLITE_UTF8));
  return *this;
}

SQLiteStatement& SQLiteStatement::bind(int64_t value) {
  check(sqlite3_bind_int64(handle_.get(), ++bound_, value));
  return *this;
}

bool SQLiteStatement::step() {
  const int code = sqlite3_step(handle_.get());
  if (code == SQLITE_ROW) return true;
  if (code != SQLITE_DONE) fail(database_, "catalogue");
  return false;
}

std::string SQLiteStatement::text(int column) const {
  const auto* const start = reinterpret_cast<const char*>(sqlite3_column_text(handle_.get(), column));
  return start ? std::string(start, static_cast<size_t>(sqlite3_column_bytes(handle_.get(), column))) : std::string();
}

int64_t SQLiteStatement::integer(int column) const {
  return sqlite3_column_int64(handle_.get(), column);
}

void SQLiteStatement::check(int code) const {
  if (code != SQLITE_OK) fail(database_, "catalogue");
}

SQLiteTransaction::SQLiteTransaction(SQLiteDatabase& database, Kind kind) : database_(database) {
  database_.execute(kind == Kind::writes ? "BEGIN IMMEDIATE" : "BEGIN");
}

SQLiteTransaction::~SQLiteTransaction() {
  if (!open_) return;
  try {
    database_.execute("ROLLBACK");
  } catch (const SQLiteError&) {  // NOLINT(bugprone-empty-catch): SQLite has rolled back by itself then
  }
}

void SQLiteTransaction::commit() {
  database_.execute("COMMIT");
  open_ = false;
}

}  // namespace tarn
