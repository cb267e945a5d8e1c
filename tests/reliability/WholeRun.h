#pragma once

#include <algorithm>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "download/DocumentsSweep.h"
#include "download/detail/TaskStore.h"
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

/// A home in memory with everything that runs in it, from a page's call to the album, and processes that come and go.
/// The disk, the photo library and the transfers outlive a process; faults are armed in `files`, and in `calls` those
/// of the photo library, of the transfers and of what becomes of a transfer.
class WholeRun {
 public:
  /// The server has this recording.
  explicit WholeRun(const Bytes& recording) : recording_(recording) {
    disk.createDirectory("/home/delivered");
    photos_.authorization().setStatus(PHAuthorizationStatus::notDetermined);
  }
  ~WholeRun() { die(); }
  WholeRun(const WholeRun&) = delete;
  WholeRun& operator=(const WholeRun&) = delete;

  InMemoryFileManager disk;
  FaultyFileManager files{disk};
  FaultyCalls calls;
  bool hasFired() const { return files.fired() || calls.fired(); }
  void disarm() {
    files.disarm();
    calls.disarm();
  }

  /// A page asks for the recording, the server sends it, and the engine does what it can. False when the command was
  /// refused.
  bool save() {
    bool isTaken = false;
    try {
      isTaken = ask();
      deliver();
    } catch (const Error&) {
      // A process that cannot go on ends here.
    }
    return isTaken;
  }

  /// The same until the transfer has begun, and there the process dies.
  void dieInMidTransfer() {
    ask();
    die();
  }

  /// A process that sees to what the last one has left, to the end.
  void restart() {
    die();
    start();
    deliver();
    for (int i = 0; i < 10 && hasPendingWork(); ++i) {
      application_->enterForeground();
      dispatch_.runUntilIdle();
    }
  }

  /// True when a run is stored that has not ended.
  bool hasPendingWork() {
    const auto pending = ProcessingStateManager(defaults_, files, clock_).allPendingStates();
    return pending && !pending->empty();
  }

  /// How often a page has been told that its video is saved.
  size_t successesTold() const { return successesTold_; }

  size_t assetsInAlbum() {
    const auto albums = photos_.fetchAssetCollections(album);
    return albums.empty() ? 0 : photos_.fetchAssets(albums.front(), std::nullopt).size();
  }
  size_t assets() { return photos_.fetchAllAssets().size(); }

  /// What was saved last, as the last step found it.
  const std::optional<Bytes>& saved() const { return savingStep_.content; }

  /// Names in the home that should not be there when nothing is under way, and stores that cannot be read.
  std::string leftovers() {
    std::string found;
    for (const Path& directory : {disk.documentsDirectory(true), disk.temporaryDirectory()}) {
      for (const std::string& name : disk.contentsOfDirectory(directory)) found += (directory / name).string() + " ";
    }
    if (hasPendingWork()) found += "a record ";
    // A task without a file or a record may stay listed: it is cleared with the old ones, or by the page.
    if (auto tasks = defaults_.data(TaskStore::downloadsKey)) decodeDownloadTasks(*tasks);
    return found;
  }

 private:
  static constexpr const char *url = "http://127.0.0.1/clip.mp4", *album = "Trips";

  /// The last step of a run, which also remembers the file.
  class WatchedSavingStep : public SavingStep {
   public:
    using SavingStep::SavingStep;
    void run(ProcessingRun& run) override {
      Bytes found = readFile(run.files, run.fileURL);
      SavingStep::run(run);
      if (run.outcome.kind == RunOutcome::Kind::saved) content = std::move(found);
    }
    std::optional<Bytes> content;
  };

  void start() {
    // There the plug-in waits for its next look at the progress, in real time.
    dispatch_.hold(dispatch_.globalQueue(QualityOfService::background));
    application_.emplace(dispatch_);
    ProcessingStateManager store(defaults_, files, clock_);
    removeLeftovers(files, store);
    for (const char* directory : {"/home/Defaults", "/home/Documents"}) {
      if (files.fileExists(directory)) removeAbandonedSiblings(files, directory);
    }
    plugin_ = TarnBridge::create({files, defaults_, clock_, dispatch_, *application_, faultyPhotos_, faultyTransfers_},
                                 steps_.withLast(savingStep_));
    plugin_->setEventListener([this](const std::string& event, const JSObject& data) {
      if (event == "downloadComplete" && data.find("assetId")) ++successesTold_;
    });
    plugin_->load();
    if (!faultyTransfers_.storedTaskDescriptions().empty())
      plugin_->downloadManager().handleEventsForBackgroundURLSession();
    dispatch_.runUntilIdle();
  }

  /// The process is gone, with all that was in memory.
  void die() {
    plugin_.reset();
    dispatch_.release(dispatch_.globalQueue(QualityOfService::background));
    dispatch_.runUntilIdle();
    application_.reset();
  }

  bool ask() {
    bool isTaken = false;
    if (!plugin_) start();
    plugin_->call(
        std::make_shared<CAPPluginCall>("saveVideo", JSObject{{"url", url}, {"album", album}, {"filename", "clip.mp4"}},
                                        [&](const CAPPluginCall::Answer& answer) { isTaken = answer.resolved; }));
    dispatch_.runUntilIdle();
    return isTaken;
  }

  bool hasRunningTransfer() const {
    return std::ranges::any_of(transfers_.tasks(),
                               [](const auto& task) { return task->state() == NSURLSessionTaskState::running; });
  }

  void deliver() {
    const auto size = static_cast<int64_t>(recording_.size());
    const std::function<void()> events[] = {
        [&] { transfers_.writeData(url, 0, -1); },
        [&] { transfers_.writeData(url, size / 2, size); },
        [&] { calls.nextFails() ? transfers_.finishWithoutFile(url) : transfers_.finish(url, recording_); },
        [&] { transfers_.complete(url); },
    };
    while (hasRunningTransfer()) {
      for (const auto& event : events) {
        if (calls.nextFails()) {
          transfers_.complete(url, URLError(56, "The connection was reset"));
          break;
        }
        event();
      }
      dispatch_.runUntilIdle();
    }
  }

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
