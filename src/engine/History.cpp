#include "engine/History.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <sqlite3.h>

#include <algorithm>
#include <set>

#include "inspect/FailureAdvice.h"
#include "inspect/SummaryJSON.h"
#include "platform/Log.h"

namespace tarn {
namespace {

constexpr const char* fileName = "history.sqlite";
constexpr const char* journalEnding = "-journal";

bool isDamage(const SQLiteError& error) {
  const int code = error.code() & 0xFF;
  return code == SQLITE_CORRUPT || code == SQLITE_NOTADB;
}

Path withEnding(Path path, const char* ending) {
  path += ending;
  return path;
}

/// The words may hold the address with all that it had.
std::string withShownURL(std::string words, const std::string& url) {
  if (url.empty()) return words;
  const std::string shown = shownURL(url);
  for (size_t at = 0; (at = words.find(url, at)) != std::string::npos; at += shown.size()) {
    words.replace(at, url.size(), shown);
  }
  return words;
}

std::optional<DownloadRequest> requestOf(const std::string& text) {
  auto noted = NotedDownload::parse(text);
  if (!noted) return std::nullopt;
  return std::move(noted->request);
}

HistoryEntry entryOf(const RunOutcome& outcome, Date now) {
  HistoryEntry entry{.id = outcome.id, .ended = now};
  switch (outcome.kind) {
    case RunOutcome::Kind::saved:
      entry.state = HistoryEntry::State::saved;
      if (outcome.isPartly) entry.reason = fmt::format("{}", fmt::join(outcome.leftAlone, "; "));
      entry.isPartly = outcome.isPartly;
      entry.filename = outcome.filename;
      entry.summary = summaryJSON(outcome.summary).json();
      entry.size = outcome.size;
      entry.assetId = outcome.assetId;
      break;
    case RunOutcome::Kind::failed: {
      const FailureAdvice advice = adviceFor(outcome);
      entry.state = HistoryEntry::State::failed;
      entry.reason = outcome.words;
      entry.advice = advice.words;
      entry.isRefused = outcome.isRefused;
      entry.mayTryAgain = advice.mayTryAgain;
      entry.maySaveAsItCame = advice.maySaveAsItCame;
      break;
    }
    case RunOutcome::Kind::cancelled:
      entry.state = HistoryEntry::State::cancelled;
      entry.mayTryAgain = true;
      break;
  }
  return entry;
}

HistoryEntry entryOfTheLost(int64_t id, Date now) {
  return {.id = id,
          .state = HistoryEntry::State::failed,
          .ended = now,
          .reason = "the engine ended before the download did, and the download is not known any more",
          .advice = "Try it again.",
          .mayTryAgain = true};
}

void add(HistoryTable& table, int64_t id, const DownloadRequest& request, Date now) {
  table.add({.id = id,
             .filename = request.filename.value_or(""),
             .album = request.album.value_or(""),
             .url = shownURL(request.url),
             .started = now},
            request.url.empty() ? "" : NotedDownload{.id = id, .request = request}.fullText());
}

}  // namespace

History::History(FileManager& files, const Clock& clock, const Path& home)
    : files_(files), clock_(clock), path_(home / fileName), aside_(withEnding(path_, ".damaged")) {
  removeOld(false);
  open();
}

std::vector<HistoryEntry> History::read(const Path& home) {
  const Path path = home / fileName;
  try {
    auto table = HistoryTable::openForReading(path);
    return table ? table->entries(std::nullopt) : std::vector<HistoryEntry>();
  } catch (const SQLiteError& error) {
    const char* const next = isDamage(error) ? ". The next save or `tarn resume` puts it aside." : ".";
    throw Error(
        "History", error.code(),
        fmt::format("The history of downloads ({}) cannot be read: {}{}", path.string(), error.description(), next));
  }
}

std::optional<std::string> History::problem() const {
  std::lock_guard guard(mutex_);
  return problem_;
}

// --- The file ---

/// The caller holds the lock, or is the constructor.
void History::open() noexcept {
  for (const bool mayPutAside : {true, false}) {
    try {
      table_.reset();
      table_.emplace(HistoryTable::openOrMake(path_));
      table_->tidy(clock_.now() - longest, most);
      return;
    } catch (const SQLiteError& error) {
      log("ERROR opening the history: {}", error.description());
      table_.reset();
      if (mayPutAside && isDamage(error)) {
        putAside();
        continue;
      }
      problem_ = fmt::format("The history of downloads ({}) cannot be used: {}", path_.string(), error.description());
      return;
    }
  }
}

/// A journal belongs to its file: a new file must not meet it.
void History::putAside() {
  for (const char* ending : {"", journalEnding}) {
    removeIfExists(files_, withEnding(aside_, ending));
    try {
      if (files_.fileExists(withEnding(path_, ending))) {
        files_.moveItem(withEnding(path_, ending), withEnding(aside_, ending));
      }
    } catch (const Error& error) {
      log("ERROR putting the history aside: {}", error.description());
    }
  }
  problem_ = fmt::format("The history of downloads was damaged; it was put aside as {}, and a new one has begun",
                         aside_.string());
  log("WARNING: {}", *problem_);
}

/// What was put aside holds requests too, none of them younger than its last change.
void History::removeOld(bool inAnyCase) {
  const auto facts = files_.attributes(aside_);
  if (!facts || (!inAnyCase && dateFromNanoseconds(facts->modificationTime) > clock_.now() - longest)) return;
  for (const char* ending : {"", journalEnding}) removeIfExists(files_, withEnding(aside_, ending));
}

/// Does the work in one transaction, and returns whether it did. A file that turns out to be damaged is put aside, and
/// the work done on a new one.
template <typename Work>
bool History::use(Work&& work) noexcept {
  std::lock_guard guard(mutex_);
  for (const bool mayPutAside : {true, false}) {
    if (!table_) return false;
    try {
      SQLiteTransaction transaction(table_->database());
      work(*table_);
      table_->tidy(clock_.now() - longest, most);
      transaction.commit();
      return true;
    } catch (const SQLiteError& error) {
      log("ERROR in the history: {}", error.description());
      if (!mayPutAside || !isDamage(error)) return false;
    } catch (const std::exception& error) {
      log("ERROR in the history: {}", error.what());
      return false;
    }
    table_.reset();
    putAside();
    open();
  }
  return false;
}

// --- What happens ---

void History::began(int64_t id, const DownloadRequest& request) noexcept {
  use([&](HistoryTable& table) { add(table, id, request, clock_.now()); });
}

void History::ended(const RunOutcome& outcome) noexcept {
  use([&](HistoryTable& table) {
    HistoryEntry entry = entryOf(outcome, clock_.now());
    const auto request = requestOf(table.request(outcome.id));
    if (request) entry.reason = withShownURL(std::move(entry.reason), request->url);
    table.end(entry);
  });
}

void History::settle(const Known& known) noexcept {
  use([&](HistoryTable& table) {
    const Date now = clock_.now();
    std::set<int64_t> ids;
    for (const auto& [id, request] : known.underWay) {
      ids.insert(id);
      table.revive(id);  // a kill came before its cancelling was stored
      if (!table.entry(id)) add(table, id, request, now);
    }
    for (const HistoryEntry& entry : table.entries(std::nullopt)) {
      if (entry.state != HistoryEntry::State::pending || ids.contains(entry.id)) continue;
      const bool isSaved = std::ranges::find(known.saved, entry.id) != known.saved.end();
      table.end(isSaved ? HistoryEntry{.id = entry.id, .state = HistoryEntry::State::saved, .ended = now}
                        : entryOfTheLost(entry.id, now));
    }
  });
}

// --- What is told ---

std::vector<HistoryEntry> History::entries(const std::optional<int64_t>& limit) {
  std::vector<HistoryEntry> entries;
  use([&](HistoryTable& table) { entries = table.entries(limit); });
  return entries;
}

std::optional<HistoryEntry> History::entry(int64_t id) {
  std::optional<HistoryEntry> entry;
  use([&](HistoryTable& table) { entry = table.entry(id); });
  return entry;
}

std::optional<DownloadRequest> History::request(int64_t id) {
  std::string text;
  use([&](HistoryTable& table) { text = table.request(id); });
  return requestOf(text);
}

bool History::clear(const std::optional<int64_t>& id) {
  const bool isDone = use([&](HistoryTable& table) { table.remove(id); });
  if (id) return isDone;
  std::lock_guard guard(mutex_);
  removeOld(true);
  return isDone;
}

}  // namespace tarn
