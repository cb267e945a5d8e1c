#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <vector>

#include "engine/Home.h"
#include "engine/Outcomes.h"
#include "engine/RepairSteps.h"
#include "platform/Platform.h"
#include "platform/host/AsioDispatch.h"
#include "platform/host/CurlURLSession.h"
#include "platform/host/HostApplication.h"
#include "platform/host/SQLitePhotoLibrary.h"
#include "plugin/SavingStep.h"
#include "plugin/TarnBridgePlugin.h"

namespace tarn {

struct HostOptions {
  Path home;
  bool verbose = false;
  std::optional<std::chrono::seconds> backgroundLimit = std::nullopt;
};

/// Everything that runs in one home: the services of the host, the steps, the plug-in. Owns the home while it lives.
/// Belongs to the thread that made it.
class Host {
 public:
  /// `files` are those of options.home, and must outlive the host. Clears up what a killed process has left; nothing
  /// else runs yet. Throws Error.
  Host(FileManager& files, const HostOptions& options);
  /// Stops everything: a run ends at its next check, transfers stay in their store.
  ~Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  /// Loads the plug-in, as a bridge does, and takes up the transfers of the last process.
  void start();

  /// The end of background time: no run starts any more, the active one stores its checkpoint and stops.
  void interrupt();

  /// The ids of the stored work that waits for a run or is in one, oldest first.
  std::vector<int64_t> pendingRuns();
  /// True while the stores hold a transfer, or a run's record, of this download.
  bool hasTransfer(int64_t id);
  /// True while the stores hold any transfer.
  bool hasTransfers() { return !transfers_.storedTaskDescriptions().empty(); }
  bool isProcessing() { return plugin_->downloadManager().isProcessing(); }
  /// What is wrong with the stored work, in words for people.
  std::vector<std::string> storeProblems() { return store_.problems(); }
  bool hasRecord(int64_t id) { return store_.loadState(id).has_value(); }

  TarnBridge& plugin() { return *plugin_; }
  HostApplication& application() { return application_; }
  SQLitePhotoLibrary& photos() { return photos_; }
  const Outcomes& outcomes() const { return outcomes_; }

 private:
  HomeLock lock_;
  Outcomes outcomes_;
  LogFile log_;
  FileManager& files_;
  SystemClock clock_;
  AsioDispatch dispatch_;
  HostApplication application_;
  UserDefaults defaults_;
  ProcessingStateManager store_;
  SQLitePhotoLibrary photos_;
  CurlURLSessionService transfers_;
  RepairSteps steps_;
  SavingStep savingStep_;
  std::shared_ptr<TarnBridge> plugin_;
};

}  // namespace tarn
