#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <set>

#include "app/Commands.h"
#include "app/HostSession.h"
#include "app/Output.h"
#include "platform/JSObject.h"

namespace tarn {
namespace {

/// Finishes what an earlier process has left: waits for transfers and runs, and sends the host to the foreground again
/// after each, which takes up the next stored run.
class Resume {
 public:
  Resume(const GlobalOptions& global, Host& host, EngineClient& client)
      : global_(global), host_(host), client_(client) {}

  int run() {
    while (!client_.isInterrupted()) {
      if (!look()) {
        if (wasIdle_ && host_.pendingRuns().empty() && isEverythingGone()) break;
        // Takes up the next stored run, and removes what is finished.
        host_.application().enterForeground();
        wasIdle_ = true;
      } else {
        wasIdle_ = false;
      }
      wait();
    }
    return finish();
  }

 private:
  /// Takes the outcomes that are there; true while any download is active.
  bool look() {
    bool isActive = false;
    const JSObject tasks = client_.call("getActiveDownloads").data;
    for (const auto& [key, value] : tasks.members()) {
      const JSObject& task = *value.get<JSObject>();
      const auto status = valueAt<std::string>(task, "status", "");
      const auto id = valueAt<int64_t>(task, "id", 0);
      if (status == "STATUS_SUCCESSFUL" && isStillTelling(id)) {
        isActive = true;
      } else if (status == "STATUS_SUCCESSFUL") {
        takeSaved(id);
      } else if (status == "STATUS_FAILED") {
        takeFailed(id, host_.outcomes().failure(id).value_or("the reason is in the log"));
      } else if (status != "STATUS_CANCELLED" && isUnderWay(id, status)) {
        isActive = true;
        show(id, task);
      }
    }
    return isActive;
  }

  /// True when the engine has let go of all that has ended, so that nothing of it is left in the stores, and no stored
  /// transfer has yet to report; or after some looks, since what nothing stands behind may stay.
  bool isEverythingGone() {
    const JSObject tasks = client_.call("getActiveDownloads").data;
    const bool isGone = std::ranges::none_of(
        outcomes_, [&](const auto& outcome) { return tasks.find(std::to_string(outcome.first)) != nullptr; });
    return (isGone && !host_.hasTransfers()) || ++looksAtTheEnd_ > enoughLooksAtTheEnd;
  }

  /// A stored task may say that it is under way although a kill has taken its transfer or its file: after some looks
  /// at which nothing stands behind it, it counts as failed. One look is not enough, since work changes hands.
  bool isUnderWay(int64_t id, const std::string& status) {
    if (status == "STATUS_PENDING" || host_.hasTransfer(id) || host_.hasRecord(id)) {
      looksAtNothing_[id] = 0;
      return true;
    }
    if (status != "STATUS_RUNNING" && status != "STATUS_PROCESSING") return false;
    if (++looksAtNothing_[id] < enoughLooks) return true;
    takeFailed(id, status == "STATUS_RUNNING" ? "its transfer is gone" : "its file is gone");
    return false;
  }

  /// The page is about to be told of a download that an earlier process has saved, or it is too old and goes; some looks
  /// give it the time.
  bool isStillTelling(int64_t id) {
    return !outcomes_.contains(id) && !host_.outcomes().assetId(id) && ++looksAtNothing_[id] < enoughLooks;
  }

  /// The end of a download, as a page hears of it; it is not in the list any more then.
  void take(const EngineClient::Event& event) {
    if (event.name != "downloadComplete") return;
    const auto id = valueAt<int64_t>(event.data, "id", 0);
    if (valueAt<std::string>(event.data, "status", "") == "STATUS_SUCCESSFUL") {
      takeSaved(id);
    } else {
      takeFailed(id, host_.outcomes().failure(id).value_or("the reason is in the log"));
    }
  }

  void takeSaved(int64_t id) {
    if (!outcomes_.emplace(id, true).second) return;
    const std::string assetId = host_.outcomes().assetId(id).value_or("");
    auto assets = host_.photos().fetchAllAssets();
    auto asset = std::ranges::find(assets, assetId, &PHAsset::localIdentifier);
    const std::string path = asset == assets.end() ? "" : asset->path.string();
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
    client_.call("cancel", {{"id", id}});
  }

  void show(int64_t id, const JSObject& task) {
    if (global_.json) {
      printJSON({{"event", "downloadProgress"}, {"data", JSObject{{std::to_string(id), task}}}});
    } else if (shown_.insert(id).second) {
      fmt::print(stderr, "going on with {}\n", valueAt(task, "filename", std::to_string(id)));
    }
  }

  /// Looks often while much may happen, and once a second in a long transfer.
  void wait() {
    if (const auto event = client_.nextEvent(pause_)) take(*event);
    pause_ = wasIdle_ ? shortestPause : std::min(pause_ * 2, longestPause);
  }

  int finish() {
    if (client_.isInterrupted()) {
      printFailure("Interrupted; what has been done is kept. `tarn resume` goes on with it.");
      return ExitCode::interrupted;
    }
    while (const auto event = client_.nextEvent(std::chrono::milliseconds(0))) take(*event);
    // What cannot be read or understood was not resumed, which has been said.
    if (!host_.storeProblems().empty()) return ExitCode::failed;
    if (outcomes_.empty() && !global_.json) fmt::print(stderr, "nothing to resume\n");
    const bool allSaved = std::ranges::all_of(outcomes_, [](const auto& outcome) { return outcome.second; });
    return allSaved ? ExitCode::done : ExitCode::failed;
  }

  static constexpr int enoughLooks = 5;
  static constexpr int enoughLooksAtTheEnd = 300;
  static constexpr std::chrono::milliseconds shortestPause{30};
  static constexpr std::chrono::milliseconds longestPause{1000};

  const GlobalOptions& global_;
  Host& host_;
  EngineClient& client_;
  std::chrono::milliseconds pause_ = shortestPause;
  bool wasIdle_ = false;
  std::map<int64_t, bool> outcomes_;  ///< true for a saved video
  std::set<int64_t> shown_;
  std::map<int64_t, int> looksAtNothing_;
  int looksAtTheEnd_ = 0;
};

}  // namespace

int resumeCommand(const GlobalOptions& global) {
  HostSession session(global);
  return Resume(global, session.host(), session.client()).run();
}

}  // namespace tarn
