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

namespace tarn {
namespace {

using Entry = Engine::HistoryEntry;

/// Asks once more for downloads of the history, and waits for their ends, which the history tells.
class Retry {
 public:
  Retry(const GlobalOptions& global, Engine& engine) : global_(global), engine_(engine) {}

  int run(const std::vector<std::string>& names, bool asItCame) {
    try {
      start(names, asItCame);
      for (auto nextLook = Clock::now(); !waiting_.empty() && !engine_.isInterrupted();) {
        if (const auto event = engine_.nextEvent(pause)) show(*event);
        if (Clock::now() < nextLook) continue;
        look();
        nextLook = Clock::now() + pause;
      }
      if (!engine_.isInterrupted()) return code_;
    } catch (const EngineInterrupted&) {
      // An interrupt ends every wait.
    }
    printer_.hide();
    return reportInterrupt(global_);
  }

 private:
  void start(const std::vector<std::string>& names, bool asItCame) {
    const auto entries = engine_.history();
    std::vector<int64_t> ids, wanted;
    for (const Entry& entry : entries) ids.push_back(entry.id);
    for (const std::string& name : names) wanted.push_back(idNamed(name, ids));
    for (const int64_t id : wanted) {
      const Entry& entry = *std::ranges::find(entries, id, &Entry::id);
      try {
        waiting_.push_back(engine_.retry(id, asItCame));
      } catch (const EngineRefused&) {
        fail(entry, failureOf(std::current_exception()));
      } catch (const EngineLost&) {
        fail(entry, {.failure = "its engine ended before the answer", .advice = "Look at `tarn downloads`."});
      }
    }
  }

  void show(const Engine::Event& event) {
    if (event.name == Engine::changed) hasOtherEngine_ = true;
    if (event.name != "downloadProgress") return;
    const JSObject data = JSObject::parse(event.data).value_or(JSObject());
    for (const int64_t id : waiting_) {
      const std::string key = std::to_string(id);
      const auto* const entry = valueAt<JSObject>(data, key);
      if (!entry) continue;
      if (global_.json) {
        printJSON({{"event", event.name}, {"data", JSObject{{key, *entry}}}});
      } else if (const auto line = progress_[id].line(*entry)) {
        printer_.show(*line, valueAt<std::string>(*entry, "filename", ""), id);
      }
    }
  }

  /// Takes the ends that the history has.
  void look() {
    const auto entries = engine_.history();
    std::erase_if(waiting_, [&](int64_t id) {
      const auto entry = std::ranges::find(entries, id, &Entry::id);
      if (entry == entries.end()) {
        fail({.id = id}, {.failure = "somebody has cleared it from the history"});
        return true;
      }
      if (entry->state != Entry::State::pending) report(*entry);
      return entry->state != Entry::State::pending;
    });
    // A stored run goes on with the next engine when it is asked for.
    if (hasOtherEngine_ && !waiting_.empty() && !engine_.storedWork().isProcessing) engine_.takeUpStoredRun();
  }

  void report(const Entry& entry) {
    printer_.remove(entry.id);
    engine_.waitUntilGone(entry.id);
    if (entry.state == Entry::State::cancelled) return fail(entry, {.failure = "somebody cancelled the download"});
    Engine::Outcome outcome = engine_.outcome(entry.id);
    if (entry.state == Entry::State::failed) {
      outcome.failure = entry.reason;
      outcome.advice = entry.advice;
      outcome.isRefused = entry.isRefused;
      outcome.mayTryAgain = entry.mayTryAgain;
      outcome.maySaveAsItCame = entry.maySaveAsItCame;
      return fail(entry, outcome);
    }
    outcome.failure.reset();
    outcome.isPartly = entry.isPartly;
    end(entry.isPartly ? ExitCode::partly : ExitCode::done);
    const auto path = engine_.assetPath(entry.assetId.value_or(""));
    if (global_.json) {
      JSObject result = resultOf(entry, outcome);
      result.set("album", entry.album);
      result.set("path", path.value_or("").string());
      return printJSON(result);
    }
    printer_.hide();
    printWarnings(outcome, entry.filename);
    path ? printPath(*path) : printLine(entry.filename + " was saved");
  }

  void fail(const Entry& entry, const Engine::Outcome& failure) {
    end(exitCodeOf(failure));
    printer_.hide();
    if (global_.json) printJSON(resultOf(entry, failure));
    const std::string name = entry.filename.empty() ? fmt::format("Download {}", entry.id) : entry.filename;
    printFailure(fmt::format("{} was not saved: {}", name, sentencesOf(failure)));
  }

  static JSObject resultOf(const Entry& entry, const Engine::Outcome& outcome) {
    JSObject result{{"result", ""}, {"id", entry.id}, {"filename", entry.filename}};
    addTo(result, outcome);
    return result;
  }

  /// One download has come to this end. Of several, any that is not done makes the whole fail.
  void end(int code) {
    code_ = ended_++ == 0 ? code : (code == code_ && code == ExitCode::done ? ExitCode::done : ExitCode::failed);
  }

  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds pause{300};

  const GlobalOptions& global_;
  Engine& engine_;
  ProgressPrinter printer_;
  std::map<int64_t, DownloadProgress> progress_;
  std::vector<int64_t> waiting_;
  bool hasOtherEngine_ = false;
  int code_ = ExitCode::done;
  size_t ended_ = 0;
};

int retryCommand(const GlobalOptions& global, const std::vector<std::string>& names, bool asItCame) {
  CommandEngine command(global);
  return command.leave(Retry(global, command.engine()).run(names, asItCame));
}

}  // namespace

void addRetryCommand(CommandTable& table) {
  const auto ids = std::make_shared<std::vector<std::string>>();
  const auto asItCame = std::make_shared<bool>(false);
  CLI::App* retry = table.app.add_subcommand("retry", "Try downloads again that failed or were cancelled");
  retry->add_option("ID", *ids, "From `tarn downloads`: a number, or its last digits")->required();
  retry->add_flag("--as-it-came", *asItCame, "Save the file as it comes, without a repair");
  retry->callback([&table, ids, asItCame] {
    table.chosen = [&table, ids, asItCame] { return retryCommand(table.global, *ids, *asItCame); };
  });
}

}  // namespace tarn
