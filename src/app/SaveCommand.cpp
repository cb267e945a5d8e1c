#include "app/SaveCommand.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <random>
#include <utility>

#include "api/FileNames.h"
#include "app/CommandEngine.h"
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
  Save(const GlobalOptions& global, const SaveOptions& options, Engine& engine)
      : global_(global), options_(options), engine_(engine) {
    if (!global.json) printer_.emplace();
  }

  int run() {
    try {
      if (!start()) return ExitCode::failed;
      if (const auto end = waitForEnd()) return report(*end);
    } catch (const EngineInterrupted&) {
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
        setId(engine_.save({.url = options_.url,
                            .album = options_.album,
                            .filename = filename_,
                            .skipVideoFix = options_.skipVideoFix,
                            .skipAudioFix = options_.skipAudioFix,
                            .id = id_}));
        return true;
      } catch (const EngineRefused& refusal) {
        printFailure(refusal.description() + " Give an http or https URL.");
        return false;
      } catch (const EngineLost&) {
        if (download()) return true;
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
  std::optional<End> take(const Engine::Event& event) {
    if (event.name == Engine::changed) {
      hasOtherEngine_ = true;
      isGone_ = false;
      return std::nullopt;
    }
    const JSObject data = JSObject::parse(event.data).value_or(JSObject());
    if (event.name == "downloadProgress") {
      const auto* entry = valueAt<JSObject>(data, key_);
      if (entry && printer_) printer_->show(*entry);
      if (entry && !printer_) printJSON({{"event", event.name}, {"data", JSObject{{key_, *entry}}}});
    } else if (event.name == "downloadComplete" && valueAt<int64_t>(data, "id", 0) == id_) {
      if (!printer_) printJSON({{"event", event.name}, {"data", data}});
      return End{.isSaved = valueAt<std::string>(data, "status", "") == "STATUS_SUCCESSFUL",
                 .assetId = valueAt<std::string>(data, "assetId", "")};
    }
    return std::nullopt;
  }

  /// Looks for an end that no event tells: somebody has cancelled the download, or its engine has ended.
  std::optional<End> look() {
    const auto download = this->download();
    isGone_ = !download;
    if (!download || !hasOtherEngine_) return std::nullopt;
    const std::string& status = download->status;
    const auto stored = engine_.storedWork();
    const bool hasVanished = vanished_.look(id_, status, stored) == VanishedWork::State::vanished;
    if (hasVanished || status == "STATUS_FAILED") {
      engine_.cancel(id_);
      return End{.words = hasVanished ? VanishedWork::words(status) : ""};
    }
    const bool waitsForARun = status == "STATUS_SUCCESSFUL" || std::ranges::find(stored.runs, id_) != stored.runs.end();
    if (waitsForARun && !stored.isProcessing) engine_.takeUpStoredRun();
    return std::nullopt;
  }

  /// This download, while the engine has it.
  std::optional<Engine::Download> download() {
    auto downloads = engine_.downloads();
    const auto found = std::ranges::find(downloads, id_, &Engine::Download::id);
    return found == downloads.end() ? std::nullopt : std::optional(std::move(*found));
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
  std::optional<std::filesystem::path> savedSinceStart() {
    return engine_.savedSince(start_, options_.album, filename_);
  }

  int reportFailure(std::string words) {
    const char* advice = " Run the same command again.";
    if (words.empty()) {
      const auto outcome = engine_.outcome(id_);
      words = outcome.failure.value_or("the reason is in the log");
      advice = outcome.isRefused ? "" : " Check the URL and the free space, then run the same command again.";
    }
    if (global_.json) printJSON({{"result", "failed"}, {"id", id_}, {"error", words}});
    printFailure(fmt::format("The video was not saved: {}.{}", words, advice));
    return ExitCode::failed;
  }

  static constexpr std::chrono::milliseconds pause{1000};

  const GlobalOptions& global_;
  const SaveOptions& options_;
  Engine& engine_;
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
  CommandEngine command(global);
  return command.leave(Save(global, options, command.engine()).run());
}

void addSaveCommand(CommandTable& table) {
  const auto options = std::make_shared<SaveOptions>();
  CLI::App* save = table.app.add_subcommand("save", "Save the video at a URL into an album");
  save->add_option("URL", options->url, "An http or https URL")->required();
  save->add_option("--album", options->album, "The album; it is made when there is none of this name")->required();
  save->add_option("--filename", options->filename, "The file's name in the album (else the URL's last part)");
  save->add_flag("--skip-video-fix", options->skipVideoFix, "Leave the file as it comes");
  save->add_flag("--skip-audio-fix", options->skipAudioFix, "Leave sound and timing as they come");
  save->callback(
      [&table, options] { table.chosen = [&table, options] { return saveCommand(table.global, *options); }; });
}

}  // namespace tarn
