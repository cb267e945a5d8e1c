#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <utility>

#include "app/Commands.h"
#include "app/EngineSession.h"
#include "app/FileNames.h"
#include "app/Output.h"
#include "app/ProgressPrinter.h"
#include "app/VanishedWork.h"
#include "platform/Clock.h"
#include "platform/JSObject.h"

namespace tarn {
namespace {

using std::chrono::steady_clock;

/// One download, from its start to its end.
class Save {
 public:
  Save(const GlobalOptions& global, const SaveOptions& options, EngineClient& engine)
      : global_(global), options_(options), engine_(engine) {
    if (!global.json) printer_.emplace();
  }

  int run() {
    try {
      if (!start()) return ExitCode::failed;
      if (const auto end = waitForEnd()) return report(*end);
    } catch (const CallInterrupted&) {
      // An interrupt ends every wait.
    }
    printer_.reset();
    printFailure("Interrupted; what has been done is kept. `tarn resume` goes on with it.");
    return ExitCode::interrupted;
  }

 private:
  struct End {
    bool isSaved = false;
    std::string assetId = {};  ///< of a saved video
    std::string words = {};    ///< of a failure, where the engine has none
  };

  /// Starts the download under an id of its own choice. When the engine ends before it answers, that tells whether the
  /// next one knows the download.
  bool start() {
    for (;;) {
      setId(freshId());
      try {
        const auto answer = engine_.saveVideo({{"id", id_},
                                               {"url", options_.url},
                                               {"album", options_.album},
                                               {"filename", filename_},
                                               {"skipVideoFix", options_.skipVideoFix},
                                               {"skipAudioFix", options_.skipAudioFix}});
        if (!answer.resolved) printFailure(answer.message + " Give an http or https URL.");
        setId(valueAt<int64_t>(answer.data, "id", 0));
        return answer.resolved;
      } catch (const EngineLost&) {
        if (engine_.downloads().find(key_)) return true;
      }
    }
  }

  /// No other command's: seconds, and behind them a number at random.
  int64_t freshId() const {
    constexpr int64_t range = 1'000'000;
    return secondsSince1970(start_) * range + static_cast<int64_t>(std::random_device()()) % range;
  }

  void setId(int64_t id) {
    id_ = id;
    key_ = std::to_string(id);
  }

  /// Follows the download through its events; nothing after an interrupt.
  std::optional<End> waitForEnd() {
    auto nextLook = steady_clock::now() + pause;
    for (;;) {
      const auto event = engine_.nextEvent(isGone_ ? std::chrono::milliseconds(0) : pause);
      if (engine_.isInterrupted()) return std::nullopt;
      if (event) {
        if (auto end = take(*event)) return end;
        if (steady_clock::now() < nextLook) continue;
      } else if (isGone_) {
        return endOfTheGone();
      }
      if (auto end = look()) return end;
      nextLook = steady_clock::now() + pause;
    }
  }

  /// Shows an event of this download; its end, when that is told.
  std::optional<End> take(const EngineClient::Event& event) {
    if (event.name == EngineClient::engineChanged) {
      hasOtherEngine_ = true;
      isGone_ = false;
    } else if (event.name == "downloadProgress") {
      const auto* entry = valueAt<JSObject>(event.data, key_);
      if (entry && printer_) printer_->show(*entry);
      if (entry && !printer_) printJSON({{"event", event.name}, {"data", JSObject{{key_, *entry}}}});
    } else if (event.name == "downloadComplete" && valueAt<int64_t>(event.data, "id", 0) == id_) {
      if (!printer_) printJSON({{"event", event.name}, {"data", event.data}});
      return End{.isSaved = valueAt<std::string>(event.data, "status", "") == "STATUS_SUCCESSFUL",
                 .assetId = valueAt<std::string>(event.data, "assetId", "")};
    }
    return std::nullopt;
  }

  /// Looks for an end that no event tells: somebody has cancelled the download, or its engine has ended.
  std::optional<End> look() {
    const JSObject downloads = engine_.downloads();
    const auto* task = valueAt<JSObject>(downloads, key_);
    isGone_ = !task;
    if (!task || !hasOtherEngine_) return std::nullopt;
    const auto status = valueAt<std::string>(*task, "status", "");
    const auto stored = engine_.storedWork();
    const bool hasVanished = vanished_.look(id_, status, stored) == VanishedWork::State::vanished;
    if (hasVanished || status == "STATUS_FAILED") {
      engine_.call("cancel", {{"id", id_}});
      return End{.words = hasVanished ? VanishedWork::words(status) : ""};
    }
    const bool waitsForARun = status == "STATUS_SUCCESSFUL" || std::ranges::find(stored.runs, id_) != stored.runs.end();
    if (waitsForARun && !stored.isProcessing) engine_.takeUpStoredRun();
    return std::nullopt;
  }

  /// All events that came before the engine let go of the download have been taken.
  End endOfTheGone() {
    const auto outcome = engine_.outcome(id_);
    if (outcome.assetId) return {.isSaved = true, .assetId = *outcome.assetId};
    if (hasOtherEngine_ && savedSinceStart()) return {.isSaved = true};
    const char* const guess =
        hasOtherEngine_ ? "its engine ended, and the next one does not know it" : "somebody cancelled the download";
    return {.words = outcome.failure.value_or(guess)};
  }

  int report(const End& end) {
    printer_.reset();
    engine_.waitUntilGone(id_);
    if (!end.isSaved) return reportFailure(end.words);
    const auto path = end.assetId.empty() ? savedSinceStart() : engine_.assetPath(end.assetId, options_.album);
    if (!path) return reportFailure("the saved file is not in its album any more");
    if (global_.json) {
      printJSON({{"result", "saved"}, {"id", id_}, {"album", options_.album}, {"path", path->string()}});
    } else {
      printLine(path->string());
    }
    return ExitCode::done;
  }

  /// The video, where an engine has ended before it told which asset it is.
  std::optional<Path> savedSinceStart() { return engine_.savedSince(start_, options_.album, filename_); }

  int reportFailure(std::string words) {
    const char* advice = "Run the same command again.";
    if (words.empty()) {
      words = engine_.outcome(id_).failure.value_or("the reason is in the log");
      advice = "Check the URL and the free space, then run the same command again.";
    }
    if (global_.json) printJSON({{"result", "failed"}, {"id", id_}, {"error", words}});
    printFailure(fmt::format("The video was not saved: {}. {}", words, advice));
    return ExitCode::failed;
  }

  static constexpr std::chrono::milliseconds pause{1000};

  const GlobalOptions& global_;
  const SaveOptions& options_;
  EngineClient& engine_;
  const std::string filename_ = options_.filename.value_or(defaultFilename(options_.url));
  const Date start_ = SystemClock().now();
  std::optional<ProgressPrinter> printer_;
  int64_t id_ = 0;
  std::string key_;
  bool hasOtherEngine_ = false;  ///< than the one that began the download
  bool isGone_ = false;          ///< from the engine's list
  VanishedWork vanished_;
};

}  // namespace

int saveCommand(const GlobalOptions& global, const SaveOptions& options) {
  EngineSession engine(global);
  return engine.leave(Save(global, options, engine).run());
}

}  // namespace tarn
