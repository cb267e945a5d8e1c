#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <map>
#include <set>

#include "app/CommandEngine.h"
#include "app/Commands.h"
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
      finishAll();
      if (!engine_.isInterrupted()) return report();
    } catch (const EngineInterrupted&) {
      // An interrupt ends every wait.
    }
    printFailure("Interrupted; what has been done is kept. `tarn resume` goes on with it.");
    return ExitCode::interrupted;
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
    const auto downloads = engine_.downloads();
    stored_ = engine_.storedWork();
    for (const Engine::Download& download : downloads) {
      const int64_t id = download.id;
      const std::string& status = download.status;
      if (status == "STATUS_SUCCESSFUL" && isStillTelling(id)) {
        isActive = true;
      } else if (status == "STATUS_SUCCESSFUL") {
        takeSaved(id);
      } else if (status == "STATUS_FAILED") {
        takeFailed(id, reason(id));
      } else if (status != "STATUS_CANCELLED" && isUnderWay(id, status)) {
        isActive = true;
        show(download);
      }
    }
    return isActive;
  }

  /// True when the engine has let go of all that has ended, so that nothing of it is left in the stores, and no stored
  /// transfer has yet to report; or after some looks, since what nothing stands behind may stay.
  bool isEverythingGone() {
    const bool isGone = std::ranges::none_of(
        engine_.downloads(), [&](const Engine::Download& download) { return outcomes_.contains(download.id); });
    return (isGone && !stored_.hasTransfers) || ++looksAtTheEnd_ > enoughLooksAtTheEnd;
  }

  bool isUnderWay(int64_t id, const std::string& status) {
    const auto state = vanished_.look(id, status, stored_);
    if (state == VanishedWork::State::vanished) takeFailed(id, VanishedWork::words(status));
    return state == VanishedWork::State::underWay;
  }

  /// The page is about to be told of a download that an earlier process has saved, or it is too old and goes; some
  /// looks give it the time.
  bool isStillTelling(int64_t id) {
    return !outcomes_.contains(id) && !engine_.outcome(id).assetId && ++looksAtSaved_[id] < enoughLooks;
  }

  /// The end of a download, as a page hears of it; it is not in the list any more then.
  void take(const Engine::Event& event) {
    if (event.name != "downloadComplete") return;
    const JSObject data = JSObject::parse(event.data).value_or(JSObject());
    const auto id = valueAt<int64_t>(data, "id", 0);
    if (valueAt<std::string>(data, "status", "") == "STATUS_SUCCESSFUL") {
      takeSaved(id);
    } else {
      takeFailed(id, reason(id));
    }
  }

  std::string reason(int64_t id) { return engine_.outcome(id).failure.value_or("the reason is in the log"); }

  void takeSaved(int64_t id) {
    if (!outcomes_.emplace(id, true).second) return;
    const std::string path = engine_.assetPath(engine_.outcome(id).assetId.value_or("")).value_or("").string();
    if (global_.json) {
      printJSON({{"result", "saved"}, {"id", id}, {"path", path}});
    } else {
      printLine(path.empty() ? fmt::format("download {} was saved", id) : path);
    }
  }

  void takeFailed(int64_t id, const std::string& words) {
    if (!outcomes_.emplace(id, false).second) return;
    if (global_.json) printJSON({{"result", "failed"}, {"id", id}, {"error", words}});
    printFailure(fmt::format("Download {} failed: {}. Save it again by its URL.", id, words));
    engine_.cancel(id);
  }

  void show(const Engine::Download& download) {
    if (global_.json) {
      const JSObject task = JSObject::parse(download.json).value_or(JSObject());
      printJSON({{"event", "downloadProgress"}, {"data", JSObject{{std::to_string(download.id), task}}}});
    } else if (shown_.insert(download.id).second) {
      fmt::print(stderr, "going on with {}\n", download.filename);
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
    if (outcomes_.empty() && !global_.json) fmt::print(stderr, "nothing to resume\n");
    const bool allSaved = std::ranges::all_of(outcomes_, [](const auto& outcome) { return outcome.second; });
    return allSaved ? ExitCode::done : ExitCode::failed;
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
  std::map<int64_t, bool> outcomes_;  ///< true for a saved video
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
  table.app.add_subcommand("resume", "Finish what was interrupted")->callback([&table] {
    table.chosen = [&table] { return resumeCommand(table.global); };
  });
}

}  // namespace tarn
