#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <map>
#include <set>

#include "app/CommandEngine.h"
#include "app/Commands.h"
#include "app/FailureReport.h"
#include "app/Output.h"
#include "app/VanishedWork.h"
#include "platform/JSObject.h"

namespace tarn {
namespace {

/// Finishes what an earlier process has left: waits for transfers and runs, and sends the host to the foreground again
/// after each, which takes up the next stored run.
class Resume {
 public:
  Resume(const GlobalOptions& global, Engine& engine) : global_(global), engine_(engine) {}

  int run() {
    try {
      for (const auto& entry : engine_.history()) {
        names_[entry.id] = entry.filename;
        urls_[entry.id] = entry.url;
      }
      finishAll();
      if (!engine_.isInterrupted()) return report();
    } catch (const EngineInterrupted&) {
      // An interrupt ends every wait.
    }
    return reportInterrupt(global_);
  }

 private:
  void finishAll() {
    while (!engine_.isInterrupted()) {
      if (!look()) {
        if (wasIdle_ && stored_.runs.empty() && isEverythingGone()) return;
        // Removes what is finished, too.
        engine_.takeUpStoredRun();
        wasIdle_ = true;
      } else {
        wasIdle_ = false;
      }
      wait();
    }
  }

  /// Takes the outcomes that are there; true while any download is active.
  bool look() {
    bool isActive = false;
    const auto transfers = engine_.transfers();
    const auto downloads = engine_.downloads();
    stored_ = engine_.storedWork();
    for (const Engine::Download& download : downloads) {
      const int64_t id = download.id;
      names_[id] = download.filename;
      if (const auto transfer = transfers.find(id); transfer != transfers.end() && transfer->second.isPaused) {
        if (shown_.insert(id).second) printNote(download.filename + " is paused: name it to let it go on");
        continue;
      }
      const std::string& status = download.status;
      if (status == "STATUS_SUCCESSFUL" && isStillTelling(id)) {
        isActive = true;
      } else if (status == "STATUS_SUCCESSFUL") {
        takeSaved(id);
      } else if (status == "STATUS_FAILED") {
        takeFailed(id, failure(id));
      } else if (status != "STATUS_CANCELLED" && isUnderWay(id, status)) {
        isActive = true;
        show(download);
      }
    }
    return isActive;
  }

  /// True when the engine has let go of all that has ended, so that nothing of it is left in the stores, and no stored
  /// transfer has yet to report; or after some looks, since what belongs to nothing may stay.
  bool isEverythingGone() {
    const bool isGone = std::ranges::none_of(
        engine_.downloads(), [&](const Engine::Download& download) { return codes_.contains(download.id); });
    return (isGone && !stored_.hasTransfers) || ++looksAtTheEnd_ > enoughLooksAtTheEnd;
  }

  bool isUnderWay(int64_t id, const std::string& status) {
    const auto state = vanished_.look(id, status, stored_);
    if (state == VanishedWork::State::vanished) {
      takeFailed(id, {.failure = VanishedWork::words(status), .advice = "Save it again.", .mayTryAgain = true});
    }
    return state == VanishedWork::State::underWay;
  }

  /// The page is about to be told of a download that an earlier process has saved, or it is too old and goes; some
  /// looks give it the time.
  bool isStillTelling(int64_t id) {
    return !codes_.contains(id) && !engine_.outcome(id).assetId && ++looksAtSaved_[id] < enoughLooks;
  }

  /// The end of a download, as a page hears of it; it is not in the list any more then.
  void take(const Engine::Event& event) {
    if (event.name != "downloadComplete") return;
    const JSObject data = JSObject::parse(event.data).value_or(JSObject());
    const auto id = valueAt<int64_t>(data, "id", 0);
    if (valueAt<std::string>(data, "status", "") == "STATUS_SUCCESSFUL") {
      takeSaved(id);
    } else {
      takeFailed(id, failure(id));
    }
  }

  Engine::Outcome failure(int64_t id) {
    Engine::Outcome outcome = outcomeOf(engine_, id);
    if (!outcome.failure) outcome.failure = "the reason is in the log";
    return outcome;
  }

  void takeSaved(int64_t id) {
    if (codes_.contains(id)) return;
    Engine::Outcome outcome = outcomeOf(engine_, id);
    outcome.failure.reset();
    codes_[id] = outcome.isPartly ? ExitCode::partly : ExitCode::done;
    const auto path = engine_.assetPath(outcome.assetId.value_or(""));
    if (global_.json) {
      JSObject result = resultOf(id, outcome);
      result.set("path", path.value_or("").string());
      return printJSON(result);
    }
    printWarnings(outcome, nameOf(id));
    if (path) {
      printPath(*path);
    } else {
      printLine(fmt::format("{} was saved", nameOf(id)));
    }
  }

  void takeFailed(int64_t id, const Engine::Outcome& failure) {
    if (!codes_.emplace(id, exitCodeOf(failure)).second) return;
    if (global_.json) printJSON(resultOf(id, failure));
    printFailure(fmt::format("{} was not saved: {}", nameOf(id), sentencesOf(failure)));
    engine_.cancel(id);
  }

  JSObject resultOf(int64_t id, const Engine::Outcome& outcome) {
    JSObject result{{"result", ""}, {"id", id}, {"filename", names_[id]}};
    if (!urls_[id].empty()) result.set("url", urls_[id]);
    addTo(result, outcome);
    return result;
  }

  std::string nameOf(int64_t id) {
    const std::string& name = names_[id];
    const bool hasName = !name.empty() && name != std::to_string(id);
    const std::string from = urls_[id].empty() ? "" : " from " + urls_[id];
    return (hasName ? name : fmt::format("Download {}", id)) + from;
  }

  void show(const Engine::Download& download) {
    if (global_.json) {
      const JSObject task = JSObject::parse(download.json).value_or(JSObject());
      printJSON({{"event", "downloadProgress"}, {"data", JSObject{{std::to_string(download.id), task}}}});
    } else if (shown_.insert(download.id).second) {
      printNote("going on with " + download.filename);
    }
  }

  /// Looks often while much may happen, and once a second in a long transfer.
  void wait() {
    if (const auto event = engine_.nextEvent(pause_)) take(*event);
    pause_ = wasIdle_ ? shortestPause : std::min(pause_ * 2, longestPause);
  }

  int report() {
    while (const auto event = engine_.nextEvent(std::chrono::milliseconds(0))) take(*event);
    // What cannot be read or understood was not resumed, which has been said.
    if (!stored_.problems.empty()) return ExitCode::failed;
    if (codes_.empty() && !global_.json) printNote("nothing to resume");
    if (codes_.size() == 1) return codes_.begin()->second;
    const bool isDone = std::ranges::all_of(codes_, [](const auto& ended) { return ended.second == ExitCode::done; });
    return isDone ? ExitCode::done : ExitCode::failed;
  }

  static constexpr int enoughLooks = 5;
  static constexpr int enoughLooksAtTheEnd = 300;
  static constexpr std::chrono::milliseconds shortestPause{30};
  static constexpr std::chrono::milliseconds longestPause{1000};

  const GlobalOptions& global_;
  Engine& engine_;
  Engine::StoredWork stored_;  ///< at the last look
  std::chrono::milliseconds pause_ = shortestPause;
  bool wasIdle_ = false;
  std::map<int64_t, int> codes_;  ///< of those that have ended
  std::map<int64_t, std::string> names_;
  std::map<int64_t, std::string> urls_;  ///< without what is secret in them
  std::set<int64_t> shown_;
  VanishedWork vanished_;
  std::map<int64_t, int> looksAtSaved_;
  int looksAtTheEnd_ = 0;
};

int resumeCommand(const GlobalOptions& global) {
  CommandEngine command(global);
  return command.leave(Resume(global, command.engine()).run());
}

}  // namespace

void addResumeCommand(CommandTable& table) {
  const auto ids = std::make_shared<std::vector<std::string>>();
  CLI::App* resume = table.app.add_subcommand("resume", "Finish what was interrupted, or let paused downloads go on");
  resume->add_option("ID", *ids, "A paused download of `tarn downloads`: a number, or its last digits");
  resume->callback([&table, ids] {
    table.chosen = [&table, ids] {
      return ids->empty() ? resumeCommand(table.global) : resumeDownloads(table.global, *ids);
    };
  });
}

}  // namespace tarn
