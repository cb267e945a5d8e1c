#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "engine/History.h"
#include "engine/Home.h"
#include "engine/HostPlugin.h"
#include "engine/LocalImport.h"
#include "engine/Outcomes.h"
#include "engine/PosterMaker.h"
#include "engine/RepairSteps.h"
#include "pipeline/ProcessingStateManager.h"
#include "platform/host/AsioDispatch.h"
#include "platform/host/CurlURLSession.h"
#include "platform/host/HostApplication.h"
#include "platform/host/SQLitePhotoLibrary.h"
#include "plugin/SavingStep.h"
#include "plugin/TarnBridgePlugin.h"

namespace tarn {

struct HostOptions {
  Path home;
  bool keepsLog = true;  ///< writes the log to a file of the home; else it goes where it went before
  std::optional<std::chrono::seconds> backgroundLimit = std::nullopt;
};

/// Everything that runs in one home: the services of the host, the steps, the plug-in. Owns the home while it lives.
/// Belongs to the thread that made it.
class Host : private DownloadListener {
 public:
  /// `files` are those of options.home, and must outlive the host. Clears up what a killed process has left; nothing
  /// else runs yet. Throws Error.
  Host(FileManager& files, const HostOptions& options);
  /// Stops everything: a run ends at its next check, transfers stay in their store.
  ~Host() override;
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  /// Loads the plug-in, as a bridge does, and takes up the transfers of the last process.
  void start();

  /// The end of background time: no run starts any more, the active one stores its checkpoint and stops.
  void interrupt();

  /// The application comes to the foreground, or leaves it.
  void setActive(bool isActive);

  /// Has the next stored run taken up, if none is active, and what has ended told. With a limit on background time that
  /// waits for the foreground. From any thread.
  void takeUpStoredRun();

  /// The ids of the stored work that waits for a run or is in one, oldest first.
  std::vector<int64_t> pendingRuns();
  /// The downloads of which the stores hold a run's record, and those of which they hold a transfer.
  std::vector<int64_t> records();
  std::vector<int64_t> transfers();
  /// True while the stores hold any transfer that goes on by itself: a paused one waits for its user.
  bool hasTransfers();
  bool isProcessing() { return plugin_->downloadManager().isProcessing(); }
  /// What is wrong with the stored work, in words for people.
  std::vector<std::string> storeProblems() { return store_.problems(); }
  /// What is wrong beside it.
  std::vector<std::string> notices() const;

  /// Has a file of this machine go the way of a download that has arrived; see LocalImport.h.
  int64_t importLocal(const Path& file, const std::string& filename, const std::string& album) {
    return importLocalFile(files_, *plugin_, file, filename, album);
  }

  TarnBridge& plugin() { return *plugin_; }
  /// What the host offers beside the bridge.
  HostPlugin& hostPlugin() { return hostPlugin_; }
  HostApplication& application() { return application_; }
  SQLitePhotoLibrary& photos() { return photos_; }
  PosterMaker& posters() { return posters_; }
  /// Removes the posters of assets that are gone.
  void sweepPosters();
  const Outcomes& outcomes() const { return outcomes_; }
  History& history() { return history_; }
  /// The file to which the log goes; none if it goes elsewhere.
  std::optional<Path> logFile() const { return log_ ? std::optional(log_->path()) : std::nullopt; }

 private:
  void showAlbums();

  const Path home_;
  HomeLock lock_;
  Outcomes outcomes_;
  std::unique_ptr<LogFile> log_;
  FileManager& files_;
  SystemClock clock_;
  History history_;
  AsioDispatch dispatch_;
  HostApplication application_;
  const bool hasBackgroundLimit_;
  std::mutex lifeMutex_;  ///< for a change of the application's state
  UserDefaults defaults_;
  ProcessingStateManager store_;
  SQLitePhotoLibrary photos_;
  PosterMaker posters_;
  CurlURLSessionService transfers_;
  RepairSteps steps_;
  SavingStep savingStep_;
  std::shared_ptr<TarnBridge> plugin_;
  HostPlugin hostPlugin_{*this};

  void began(int64_t id, const DownloadRequest& request) noexcept override;
  void ended(const RunOutcome& outcome) noexcept override;
  void settleHistory();
};

}  // namespace tarn
