#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "download/DocumentsSweep.h"
#include "download/DownloadManager.h"
#include "platform/host/HostApplication.h"
#include "platform/memory/InMemoryPhotoLibrary.h"
#include "platform/memory/ManualDispatch.h"
#include "platform/memory/ScriptedURLSession.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"
#include "support/ScriptedStep.h"
#include "support/TestHome.h"

namespace tarn::test {

/// What a delegate has heard, as words.
class RecordingDelegate : public DownloadManagerDelegate {
 public:
  void downloadDidFinish(const DownloadTaskPointer& download, const Path&) override { note("finished", download->id); }
  void downloadDidFailed(const DownloadTaskPointer& download) override { note("failed", download->id); }
  void processingProgressUpdated(int64_t id, double, const std::string& stage) override { note(stage, id); }

  std::vector<std::string> heard;

 private:
  void note(const std::string& what, int64_t id) { heard.push_back(what + " " + std::to_string(id)); }
};

/// The engine on files in memory, with transfers, queues and time in the test's hands. The pipeline has a last step
/// alone.
class EngineTest : public testing::Test, protected TestHome {
 protected:
  static constexpr int64_t firstId = 1'800'000'000;

  EngineTest() { start(); }

  /// A process comes up: leftovers are removed, the engine is made and does what a plug-in's load does.
  void start() {
    removeLeftovers(files_, *std::make_unique<ProcessingStateManager>(defaults_, files_, clock_));
    engine_ = DownloadManager::create(platform_, {.last = &last_});
    engine_->performPeriodicCleanup();
    engine_->checkAndResumePendingProcessing();
    if (!transfers_.storedTaskDescriptions().empty()) engine_->handleEventsForBackgroundURLSession();
  }

  /// The process dies, all that was in memory with it, work that was posted too; and the next one comes up.
  void restart() {
    engine_.reset();
    dispatch_.runUntilIdle();
    notes_.clear();
    delegate_->heard.clear();
    start();
    settle();
  }

  DownloadTaskPointer save(const std::string& name, bool skipVideoFix = false) {
    return saveAs(name, name, skipVideoFix);
  }
  DownloadTaskPointer saveAs(const std::string& filename, const std::string& name, bool skipVideoFix = false) {
    return engine_->startDownloadFileBy(
        {.url = url(name), .album = "Trips", .filename = filename, .skipVideoFix = skipVideoFix}, delegate_);
  }
  static std::string url(const std::string& name) { return "http://127.0.0.1/" + name; }

  /// The file of a transfer comes, and what then can happen happens.
  void finish(const std::string& name) {
    transfers_.finish(url(name), bytesOf("content of " + name));
    settle();
  }
  /// Files come and wait for their runs, one each second, until the process dies.
  void finishUnprocessed(const std::vector<std::string>& names) {
    dispatch_.hold(worker());
    for (const std::string& name : names) {
      save(name);
      finish(name);
      transfers_.complete(url(name));
      settle();
      clock_.advance(std::chrono::seconds(1));
    }
  }
  /// A new process, and as many returns to the foreground as take up all that it finds.
  void resumeAll() {
    restart();
    for (int i = 0; i < 5; ++i) {
      engine_->checkAndResumePendingProcessing();
      settle();
    }
  }
  /// The hourly work comes.
  void cleanUp() {
    engine_->performPeriodicCleanup();
    settle();
  }
  void settle() { dispatch_.runUntilIdle(); }
  DispatchQueue& worker() { return dispatch_.serialQueue("com.tarn.processing"); }

  std::string heard() { return joinedWords(delegate_->heard); }
  std::string contents() { return joinedWords(contents_); }
  std::vector<std::string> documents() { return files_.contentsOfDirectory(files_.documentsDirectory(true)); }
  std::string storedStates() { return stored(ProcessingStateManager::userDefaultsKey); }

  LogCapture lines_;
  ManualClock clock_;
  ManualDispatch dispatch_;
  HostApplication application_{dispatch_};
  InMemoryPhotoLibrary photos_{files_, dispatch_};
  ScriptedURLSessionService transfers_{files_, home_ / "delivered"};
  Platform platform_{files_, defaults_, clock_, dispatch_, application_, photos_, transfers_};

  std::vector<std::string> notes_;     ///< stages of all runs
  std::vector<std::string> contents_;  ///< what the last step found in each file
  ScriptedStep last_{{ProcessingStage::savingToPhotos}, notes_, [this](ProcessingRun& run, auto) {
                       contents_.emplace_back(textOf(readFile(run.files, run.fileURL)));
                       run.outcome.setSaved();
                     }};
  std::shared_ptr<RecordingDelegate> delegate_ = std::make_shared<RecordingDelegate>();
  std::shared_ptr<DownloadManager> engine_;
};

}  // namespace tarn::test
