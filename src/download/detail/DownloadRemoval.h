#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "download/detail/DownloadStarter.h"
#include "download/detail/EngineState.h"

namespace tarn {

/// Takes downloads away: those that the page cancels, those that are done with, and those that are too old.
/// Thread-safe; it has no lock of its own. Tasks leave the engine on a serial queue, com.tarn.downloadsQueue, after the
/// calls; work there never waits.
///
/// Whoever cancels a download first marks its task as ended, and then asks the gate. The gate looks at the mark under
/// its own lock before it lets a run in, so none slips through.
class DownloadRemoval {
 public:
  DownloadRemoval(EngineState& engine, DownloadStarter& starter);

  void cancel(int64_t id);
  void cancelAll();
  void clearAll();

  /// True for half a second after cancelAll(), unless clearAll() lifts it.
  bool isBlocking() const { return isBlockingNewDownloads_; }

  /// Removes a task that is done with, later.
  void remove(int64_t id);

  /// Removes what is older than a day, and files that nothing refers to; later.
  void cleanUp();

 private:
  void tellCancelled(int64_t id);
  void deleteFiles(const ProcessingGate::TakenAway& taken);
  void wipeLater();
  void wipe(const std::vector<DownloadTaskPointer>& tasks);
  void removeNow(int64_t id);
  void cleanUpNow();
  void giveUp(const std::vector<int64_t>& ids, const std::string& words);

  EngineState& engine_;
  DownloadStarter& starter_;
  const std::shared_ptr<DispatchQueue> downloadsQueue_;
  std::atomic<bool> isBlockingNewDownloads_ = false;
};

}  // namespace tarn
