#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <map>
#include <memory>

#include "app/CommandEngine.h"
#include "app/Commands.h"
#include "app/DownloadIds.h"
#include "app/FailureReport.h"
#include "app/Output.h"
#include "app/ProgressPrinter.h"
#include "engine/History.h"
#include "engine/Home.h"
#include "platform/DateText.h"
#include "platform/TransferRules.h"

namespace tarn {
namespace {

using State = HistoryEntry::State;

/// The downloads of a home, as its history has them, and those under way as the engine has them, if one runs. Asks
/// nobody to begin.
class Downloads {
 public:
  explicit Downloads(const GlobalOptions& global)
      : global_(global), entries_(History::read(homeDirectory(global.home))) {
    for (const HistoryEntry& entry : entries_) ids_.push_back(entry.id);
    try {
      Engine engine(engineOptions(global));
      hasEngine_ = engine.openRunning();
      if (!hasEngine_) return;
      for (Engine::Download& download : engine.downloads()) live_.emplace(download.id, std::move(download));
      transfers_ = engine.transfers();
    } catch (const EngineLost&) {
      hasEngine_ = false;
    }
  }

  void print() const {
    if (global_.json) {
      for (const HistoryEntry& entry : entries_) printJSON(jsonOf(entry));
      return;
    }
    if (entries_.empty()) return printLine("There are no downloads yet: `tarn save URL` begins one.");
    printGroup("Under way", State::pending);
    printGroup("Failed", State::failed);
    printGroup("Cancelled", State::cancelled);
    printGroup("Saved", State::saved);
  }

 private:
  void printGroup(const char* title, State state) const {
    bool isFirst = true;
    for (const HistoryEntry& entry : entries_) {
      if (entry.state != state) continue;
      if (std::exchange(isFirst, false)) printLine(title);
      printEntry(entry);
    }
  }

  void printEntry(const HistoryEntry& entry) const {
    const std::string id = shortId(entry.id, ids_);
    printLine(fmt::format("  {}  {}  in {}  {}", id, entry.filename, entry.album, whenAndHow(entry)));
    const auto detail = [](const std::string& text) { printLine("        " + text); };
    if (entry.state != State::saved && !entry.url.empty()) detail("from " + entry.url);
    if (!entry.reason.empty()) detail(entry.reason + ".");
    if (!entry.advice.empty()) detail(entry.advice);
    if (entry.mayTryAgain) detail(fmt::format("To try again: tarn retry {}", id));
    if (entry.maySaveAsItCame) detail(fmt::format("To save it without the repair: tarn retry {} --as-it-came", id));
  }

  JSObject jsonOf(const HistoryEntry& entry) const {
    JSObject object = tarn::jsonOf(entry);
    const auto transfer = transfers_.find(entry.id);
    if (transfer != transfers_.end()) object.set("transfer", objectOf(transfer->second));
    return object;
  }

  std::string whenAndHow(const HistoryEntry& entry) const {
    if (entry.state == State::pending) return progress(entry.id);
    const std::string size = entry.size ? byteText(static_cast<double>(*entry.size)) + "  " : "";
    const std::string partly = entry.isPartly ? "a part is missing  " : "";
    return size + partly + (entry.ended ? dateText(*entry.ended) : "");
  }

  std::string progress(int64_t id) const {
    if (!hasEngine_) return "nobody works on it now: `tarn resume` goes on";
    const auto transfer = transfers_.find(id);
    const auto download = live_.find(id);
    if (download != live_.end() && download->second.status == "STATUS_PROCESSING") return "being repaired";
    if (transfer == transfers_.end()) return "waiting";
    const TransferState& state = transfer->second;
    const std::string done = doneText(state);
    if (state.isPaused) return fmt::format("paused at {}: `tarn resume {}` goes on", done, shortId(id, ids_));
    if (const auto& retry = state.retry) {
      return fmt::format("{}; retrying in {:.0f} s ({} of {}): {}", done,
                         std::chrono::duration<double>(retry->in).count(), retry->number, retry->most, retry->why);
    }
    const bool isWaiting = download != live_.end() && download->second.status == "STATUS_PENDING";
    return isWaiting ? "waiting for its turn" : done;
  }

  static std::string doneText(const TransferState& state) {
    const auto received = static_cast<double>(state.received);
    if (!state.expected || *state.expected == 0) return byteText(received);
    const auto expected = static_cast<double>(*state.expected);
    return fmt::format("{} of {} ({:.0f} %)", byteText(received), byteText(expected), 100 * received / expected);
  }

  const GlobalOptions& global_;
  const std::vector<HistoryEntry> entries_;
  std::vector<int64_t> ids_;
  bool hasEngine_ = false;
  std::map<int64_t, Engine::Download> live_;
  std::map<int64_t, TransferState> transfers_;
};

int listCommand(const GlobalOptions& global) {
  const InterruptWatcher watcher = endAtInterrupt(global);
  Downloads(global).print();
  return ExitCode::done;
}

int clearCommand(const GlobalOptions& global) {
  CommandEngine command(global);
  command.engine().clearHistory();
  return command.leave(ExitCode::done);
}

/// Does something to downloads, which are named by their ids or endings of them. Nothing is done if one is not known.
int changeCommand(const GlobalOptions& global, const std::vector<std::string>& names, const char* what,
                  void (Engine::*change)(int64_t id)) {
  CommandEngine command(global);
  Engine& engine = command.engine();
  const auto entries = engine.history();
  std::vector<int64_t> ids, wanted;
  for (const auto& entry : entries) ids.push_back(entry.id);
  for (const std::string& name : names) wanted.push_back(idNamed(name, ids));
  int code = ExitCode::done;
  for (const int64_t id : wanted) {
    try {
      const auto entry = std::ranges::find(entries, id, &Engine::HistoryEntry::id);
      if (entry->state != Engine::HistoryEntry::State::pending) throw EngineRefused("The download has ended");
      (engine.*change)(id);
      if (global.json) printJSON({{"result", what}, {"id", id}});
    } catch (const EngineRefused&) {
      const Engine::Outcome failure = failureOf(std::current_exception());
      JSObject result{{"result", ""}, {"id", id}};
      addTo(result, failure);
      if (global.json) printJSON(result);
      printFailure(fmt::format("{}: {}", shortId(id, ids), sentencesOf(failure)));
      code = wanted.size() > 1 ? ExitCode::failed : exitCodeOf(failure);
    }
  }
  return command.leave(code);
}

void addChange(CommandTable& table, const char* name, const char* help, const char* what,
               void (Engine::*change)(int64_t id)) {
  const auto ids = std::make_shared<std::vector<std::string>>();
  CLI::App* command = table.app.add_subcommand(name, help);
  command->add_option("ID", *ids, "From `tarn downloads`: a number, or its last digits")->required();
  command->callback([&table, ids, what, change] {
    table.chosen = [&table, ids, what, change] { return changeCommand(table.global, *ids, what, change); };
  });
}

}  // namespace

int resumeDownloads(const GlobalOptions& global, const std::vector<std::string>& ids) {
  return changeCommand(global, ids, "resumed", &Engine::resume);
}

void addDownloadsCommands(CommandTable& table) {
  const auto clears = std::make_shared<bool>(false);
  CLI::App* downloads = table.app.add_subcommand("downloads", "List the downloads: under way, failed and why, saved");
  downloads->add_flag("--clear", *clears, "Forget those that have ended; the videos stay");
  downloads->callback([&table, clears] {
    table.chosen = [&table, clears] { return *clears ? clearCommand(table.global) : listCommand(table.global); };
  });
  addChange(table, "cancel", "Stop downloads and drop what they have fetched", "cancelled", &Engine::cancel);
  addChange(table, "pause", "Stop downloads and keep what they have fetched, until `tarn resume ID`", "paused",
            &Engine::pause);
}

}  // namespace tarn
