// What happens while the engine is in the middle of something else.

#include <functional>

#include "download/EngineTest.h"
#include "support/FaultyFileManager.h"
#include "support/FaultyServices.h"

namespace tarn::test {
namespace {

/// Lets a test do something in the middle of the start of a download: when its transfer is made.
class MeantimeTransfers : public ForwardingURLSessionService {
 public:
  using ForwardingURLSessionService::ForwardingURLSessionService;
  std::function<void()> atTheNextStart = [] {};

 private:
  void transferIsMade() override {
    std::exchange(atTheNextStart, [] {})();
  }
};

/// The engine over files and transfers in whose changes a test may step.
class MeantimeTest : public EngineTest {
 public:
  ~MeantimeTest() override { engine_.reset(); }

 protected:
  MeantimeTest() { startOver({.last = &last_}); }

  void startOver(const ProcessingSteps& steps) {
    engine_ = DownloadManager::create(
        {meantime_, meantimeDefaults_, clock_, dispatch_, application_, photos_, meantimeTransfers_}, steps);
  }

  /// Lets the work happen when the file has just come to its place: no record names it, and no run is admitted.
  void onceInPlace(const std::string& name, const std::function<void()>& work) {
    meantime_.arm({.errnum = 0, .among = {FileOperation::flush}, .strike = [=, this] {
                     EXPECT_TRUE(files_.fileExists(home_ / "Documents" / name));
                     work();
                   }});
  }

  FaultyFileManager meantime_{files_};
  UserDefaults meantimeDefaults_{meantime_, home_ / "Defaults"};
  MeantimeTransfers meantimeTransfers_{transfers_};
};

TEST_F(MeantimeTest, ADownloadThatBeginsWhileAllAreCancelledKeepsNoSlot) {
  engine_->setMaxConcurrentDownloads(1);
  meantimeTransfers_.atTheNextStart = [this] { engine_->cancelAll(); };
  save("a.mp4");
  settle();
  dispatch_.advance(std::chrono::milliseconds(500));
  EXPECT_EQ(save("b.mp4")->status(), DownloadStatus::downloading);
}

TEST_F(MeantimeTest, ADownloadThatIsPausedWhileItBeginsKeepsNoSlot) {
  engine_->setMaxConcurrentDownloads(1);
  meantimeTransfers_.atTheNextStart = [this] { EXPECT_TRUE(engine_->pauseDownloadFileBy(firstId)); };
  save("a.mp4");
  EXPECT_EQ(transfers_.task(url("a.mp4"))->state(), NSURLSessionTaskState::suspended);
  EXPECT_EQ(save("b.mp4")->status(), DownloadStatus::downloading);
}

TEST_F(MeantimeTest, ADownloadThatCannotBeginLeavesItsSlotToOneThatCameMeanwhile) {
  engine_->setMaxConcurrentDownloads(1);
  DownloadTaskPointer other;
  // Its transfer is made as soon as it is known, and when that has failed, once more in its slot.
  meantimeTransfers_.atTheNextStart = [&] {
    meantimeTransfers_.atTheNextStart = [&] {
      other = save("b.mp4");
      throw PosixError(EIO, "at the start");
    };
    throw PosixError(EIO, "before the start");
  };
  EXPECT_EQ(save("a.mp4")->status(), DownloadStatus::failed);
  EXPECT_EQ(other->status(), DownloadStatus::downloading);
}

TEST_F(MeantimeTest, TheSweepLeavesAFileThatIsBeingHandedOver) {
  save("clip.mp4");
  onceInPlace("clip.mp4", [&] { cleanUp(); });
  finish("clip.mp4");
  EXPECT_EQ(contents(), "content of clip.mp4");
}

/// A run that is asked to stop before it has begun keeps its slot until it is taken up again, or given up.
TEST_F(MeantimeTest, ARunWhoseRecordTheCleanUpMeetsGoesOnOrIsTold) {
  engine_->setMaxConcurrentDownloads(1);
  const auto stopTheRun = [this] {
    application_.enterBackground();
    engine_->handleAppDidEnterBackground();
    application_.expireBackgroundTime();
    settle();
  };
  const auto cleanUpBeforeTheRunEnds = [&](const std::function<void()>& atTheSweep) {
    meantime_.arm({.errnum = 0, .among = {FileOperation::list}, .strike = atTheSweep});
    cleanUp();
    dispatch_.release(worker());
    settle();
    application_.enterForeground();
    engine_->checkAndResumePendingProcessing();
    settle();
  };

  dispatch_.hold(worker());
  const auto old = save("old.mp4");
  finish("old.mp4");
  stopTheRun();
  dispatch_.release(worker());
  settle();
  dispatch_.hold(worker());
  clock_.advance(std::chrono::hours(48));
  cleanUpBeforeTheRunEnds([&] {
    engine_->checkAndResumePendingProcessing();
    stopTheRun();
  });
  EXPECT_EQ(old->status(), DownloadStatus::completed);

  dispatch_.hold(worker());
  const auto gone = save("gone.mp4");
  finish("gone.mp4");
  files_.removeItem(home_ / "Documents/gone.mp4");
  stopTheRun();
  cleanUpBeforeTheRunEnds({});
  EXPECT_EQ(gone->status(), DownloadStatus::failed);

  EXPECT_EQ(save("next.mp4")->status(), DownloadStatus::downloading) << "both have given their slot back";
}

TEST_F(MeantimeTest, WhoeverTakesARunAwayHasItsFilesGo) {
  enum class How { cancel, cancelAll, clearAll };
  enum class Where { handedOver, waiting, aboutToRun, running };
  for (const How how : {How::cancel, How::cancelAll, How::clearAll}) {
    for (const Where where : {Where::handedOver, Where::waiting, Where::aboutToRun, Where::running}) {
      SCOPED_TRACE(testing::Message() << static_cast<int>(how) << static_cast<int>(where));
      int64_t id = 0;
      const auto takeAway = [&] {
        if (how == How::cancel) engine_->cancelDownloadFileBy(id);
        if (how == How::cancelAll) engine_->cancelAll();
        if (how == How::clearAll) engine_->clearAllStates();
      };
      ScriptedStep last({ProcessingStage::savingToPhotos}, notes_, [&](ProcessingRun& run, auto) {
        run.state.addTempFile(put("stripped.m4a", "x"));
        run.saveState();
        if (where == Where::running) {
          takeAway();
          EXPECT_THROW(readFile(run.files, run.fileURL), CancellationError) << "reading and copying look out for it";
        }
        contents_.emplace_back(textOf(readFile(run.files, run.fileURL)));
        run.outcome.setSaved();
      });
      startOver({.last = &last});
      dispatch_.hold(worker());
      if (where == Where::waiting) save("first.MP4"), finish("first.MP4");
      contents_.clear();
      id = save("clip.MP4")->id;
      if (where == Where::handedOver) onceInPlace("clip.MP4", takeAway);
      finish("clip.MP4");
      if (where != Where::handedOver) put(std::to_string(id) + ".recipe", "of an earlier process");
      if (where == Where::waiting || where == Where::aboutToRun) takeAway();
      dispatch_.release(worker());
      settle();
      EXPECT_EQ(contents_.empty(), where != Where::waiting || how != How::cancel) << contents();
      EXPECT_TRUE(documents().empty()) << joinedWords(documents());
      EXPECT_EQ(storedStates(), "[]");
      engine_->clearAllStates();
      settle();
      transfers_.deliverCancellations();
    }
  }
}

}  // namespace
}  // namespace tarn::test
