#pragma once

#include <memory>
#include <optional>
#include <string>

#include "engine/RepairSteps.h"
#include "platform/host/HostApplication.h"
#include "platform/memory/InMemoryFileManager.h"
#include "platform/memory/InMemoryPhotoLibrary.h"
#include "platform/memory/ManualDispatch.h"
#include "platform/memory/ScriptedURLSession.h"
#include "plugin/SavingStep.h"
#include "plugin/TarnBridgePlugin.h"
#include "support/FaultyFileManager.h"
#include "support/FaultyServices.h"
#include "support/ManualClock.h"

namespace tarn::test {

/// The bytes of all samples of a movie's first video track, in order.
Bytes videoSamples(const Bytes& movie);

/// A home in memory with everything that runs in it, from a page's call to the album, and processes that come and go.
/// The disk, the photo library and the transfers outlive a process; faults are armed in `files`, and in `calls` those
/// of the photo library, of the transfers and of what becomes of a transfer.
class WholeRun {
 public:
  /// The server has this recording.
  explicit WholeRun(const Bytes& recording);
  ~WholeRun() { die(); }
  WholeRun(const WholeRun&) = delete;
  WholeRun& operator=(const WholeRun&) = delete;

  InMemoryFileManager disk;
  FaultyFileManager files{disk};
  FaultyCalls calls;
  bool hasFired() const { return files.fired() || calls.fired(); }
  void disarm();

  /// A page asks for the recording, the server sends it, and the engine does what it can. False when the command was
  /// refused.
  bool save();

  /// The same until the transfer has begun, and there the process dies.
  void dieInMidTransfer();

  /// A process that sees to what the last one has left, to the end.
  void restart();

  /// True when a run is stored that has not ended.
  bool hasPendingWork();

  /// The process is gone, with all that was in memory.
  void die();

  /// How often a page has been told that its video is saved.
  size_t successesTold() const { return successesTold_; }

  size_t assetsInAlbum();
  size_t assets() { return photos_.fetchAllAssets().size(); }

  /// What was saved last, as the last step found it.
  const std::optional<Bytes>& saved() const { return savingStep_.content; }

  /// Names in the home that should not be there when nothing is under way, and stores that cannot be read.
  std::string leftovers();

 private:
  /// The last step of a run, which also remembers the file.
  class WatchedSavingStep : public SavingStep {
   public:
    using SavingStep::SavingStep;
    void run(ProcessingRun& run) override;
    std::optional<Bytes> content;
  };

  void start();
  bool ask();
  bool hasRunningTransfer() const;
  void deliver();

  const Bytes recording_;
  UserDefaults defaults_{files, "/home/Defaults"};
  ManualClock clock_;
  ManualDispatch dispatch_;
  std::optional<HostApplication> application_;
  InMemoryPhotoLibrary photos_{files, dispatch_};
  FaultyPhotoLibrary faultyPhotos_{photos_, calls};
  ScriptedURLSessionService transfers_{files, "/home/delivered"};
  FaultyURLSessionService faultyTransfers_{transfers_, calls};
  RepairSteps steps_;
  WatchedSavingStep savingStep_{faultyPhotos_, clock_};
  std::shared_ptr<TarnBridge> plugin_;
  size_t successesTold_ = 0;
};

}  // namespace tarn::test
