// What happens while the engine is in the middle of something else.

#include <atomic>
#include <functional>
#include <thread>

#include "download/EngineTest.h"
#include "platform/ForwardingFileManager.h"
#include "support/FaultyServices.h"

namespace tarn::test {
namespace {

/// Lets a test do something in the middle of an operation of the engine: once, just before the first change of a file
/// of this name, or the first flush of such a directory, on the thread that makes it.
class MeantimeFiles : public ForwardingFileManager {
 public:
  using ForwardingFileManager::ForwardingFileManager;

  void beforeChangeOf(std::string name, std::function<void()> work) {
    name_ = std::move(name);
    work_ = std::move(work);
  }

  void removeItem(const Path& path) override {
    happen(path);
    base().removeItem(path);
  }
  void synchronizeDirectory(const Path& path) override {
    happen(path);
    base().synchronizeDirectory(path);
  }
  void replaceItem(const Path& target, const Path& source) override {
    happen(target);
    base().replaceItem(target, source);
  }

 private:
  void happen(const Path& path) {
    if (path.filename() == name_) std::exchange(work_, [] {})();
  }

  std::string name_;
  std::function<void()> work_ = [] {};
};

class MeantimeTest : public EngineTest {
 protected:
  /// The engine over files in whose changes a test may step.
  void startOver(const ProcessingSteps& steps) {
    engine_ = DownloadManager::create(
        {meantime_, meantimeDefaults_, clock_, dispatch_, application_, photos_, transfers_}, steps);
  }

  MeantimeFiles meantime_{files_};
  UserDefaults meantimeDefaults_{meantime_, home_ / "Defaults"};
};

TEST_F(MeantimeTest, AFileRunsOnceHoweverOftenTheForegroundComes) {
  std::atomic<bool> isOver = false;
  std::thread foreground([&] {
    while (!isOver) engine_->checkAndResumePendingProcessing();
  });
  for (int i = 0; i < 40; ++i) {
    const std::string name = "clip" + std::to_string(i) + ".mp4";
    save(name);
    finish(name);
    transfers_.complete(url(name));
    clock_.advance(std::chrono::seconds(1));
  }
  isOver = true;
  foreground.join();
  settle();
  EXPECT_EQ(contents_.size(), 40U);
  EXPECT_EQ(storedStates(), "[]");
}

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

TEST_F(MeantimeTest, ADownloadThatBeginsWhileAllAreCancelledKeepsNoSlot) {
  MeantimeTransfers transfers(transfers_);
  engine_ = DownloadManager::create({files_, defaults_, clock_, dispatch_, application_, photos_, transfers},
                                    {.last = &last_});
  engine_->setMaxConcurrentDownloads(1);
  transfers.atTheNextStart = [this] { engine_->cancelAll(); };
  save("a.mp4");
  settle();
  dispatch_.advance(std::chrono::milliseconds(500));
  EXPECT_EQ(save("b.mp4")->status(), DownloadStatus::downloading);
  engine_.reset();
}

TEST_F(MeantimeTest, TheSweepLeavesAFileThatIsBeingHandedOver) {
  startOver({.last = &last_});
  save("clip.mp4");
  // The file has just come to its place, and no record names it yet.
  meantime_.beforeChangeOf("Documents", [&] { cleanUp(); });
  finish("clip.mp4");
  EXPECT_EQ(contents(), "content of clip.mp4");
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
      // The file has just come to its place, and its run is not admitted yet.
      if (where == Where::handedOver) meantime_.beforeChangeOf("Documents", takeAway);
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
