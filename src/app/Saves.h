#pragma once

#include <tarn/engine.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "app/Commands.h"
#include "app/ProgressPrinter.h"
#include "app/SaveList.h"
#include "app/VanishedWork.h"
#include "platform/Clock.h"
#include "platform/JSObject.h"

namespace tarn {

/// How the videos are fetched and repaired, the same for all.
struct SaveOptions {
  bool skipVideoFix = false;
  bool skipAudioFix = false;
  TransferOptions transfer = {};
};

/// Some downloads, from their start to their end; the engine works as many at once as it may. Says of each how it ended
/// as soon as it has.
class Saves {
 public:
  Saves(const GlobalOptions& global, Engine& engine, const std::vector<SaveItem>& items, SaveOptions options);

  /// Returns the exit code: that of a single download, or `failed` if not all are done.
  int run();

 private:
  struct Save {
    SaveItem item;
    size_t number;         ///< in the order in which the user gave them, from 1
    std::string filename;  ///< that the user gave, or that the URL has
    std::string key = {};  ///< the id as the events have it
    bool isGone = false;   ///< from the engine's list
    TransferState state = {};
    DownloadProgress progress = {};
  };
  using Open = std::map<int64_t, Save>;

  void start(Save save);
  void follow();
  void take(const Engine::Event& event);
  void showProgress(const JSObject& entries);
  void show(int64_t id, const Save& save, const ProgressLine& line);
  void takeEnd(const JSObject& data);
  void look();
  void lookAtTransfers();
  bool hasEnded(int64_t id, const std::string& status, const Engine::StoredWork& stored);
  void endTheGone();
  void end(int64_t id, const Engine::Outcome& outcome);
  void reportSaved(int64_t id, const Save& save, const Engine::Outcome& outcome, const std::filesystem::path& path);
  void reportFailure(int64_t id, const Save& save, const Engine::Outcome& failure);
  std::optional<std::filesystem::path> pathOf(const Save& save, const Engine::Outcome& outcome);
  std::optional<std::filesystem::path> savedSinceStart(const Save& save);
  JSObject resultOf(int64_t id, const Save& save, const Engine::Outcome& outcome) const;
  std::optional<Engine::Download> download(int64_t id);
  int64_t freshId();
  int exitCode() const;

  const GlobalOptions& global_;
  Engine& engine_;
  const std::vector<SaveItem> items_;
  const SaveOptions options_;
  const Date start_ = SystemClock().now();
  ProgressPrinter printer_;
  Open open_;
  std::vector<int> codes_;       ///< of those that have ended
  bool hasOtherEngine_ = false;  ///< than the one that began the downloads
  VanishedWork vanished_;
};

}  // namespace tarn
