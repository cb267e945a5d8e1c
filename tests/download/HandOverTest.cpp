#include <gmock/gmock.h>

#include "download/EngineTest.h"

namespace tarn::test {
namespace {

TEST_F(EngineTest, NamesThatLeaveDocumentsFailLikeAFailedMove) {
  const std::string names[] = {"../x", "/etc/x", "", ".", "..", std::string("a\0b", 3), std::string(300, 'n')};
  for (const std::string& name : names) {
    SCOPED_TRACE(name);
    auto task = saveAs(name, "clip.mp4");
    finish("clip.mp4");
    transfers_.complete(url("clip.mp4"));
    settle();
    EXPECT_EQ(task->status(), DownloadStatus::failed);
    EXPECT_TRUE(heard().starts_with("failed " + std::to_string(task->id)));
    EXPECT_TRUE(documents().empty());
    engine_->removeDownload(task->id);
    delegate_->heard.clear();
    settle();
  }
  EXPECT_TRUE(files_.contentsOfDirectory(home_.path() / "delivered").empty());
  auto task = saveAs("two\nlines.mp4", "line.mp4");
  finish("line.mp4");
  EXPECT_EQ(task->status(), DownloadStatus::completed) << "a line end is a legal name";
}

TEST_F(EngineTest, ANewcomerNeverReplacesAnotherDownloadsPendingFile) {
  dispatch_.hold(worker());
  save("clip.mp4");
  saveAs("clip.mp4", "other.mp4");
  finish("clip.mp4");
  finish("other.mp4");
  EXPECT_THAT(documents(), testing::UnorderedElementsAre("clip.mp4", "clip-1800000001.mp4"));
  dispatch_.release(worker());
  settle();
  EXPECT_EQ(contents(), "content of clip.mp4 content of other.mp4");
  EXPECT_TRUE(documents().empty());

  const std::string longest = std::string(251, 'y') + ".mp4";
  dispatch_.hold(worker());
  saveAs(longest, "long.mp4");
  const auto second = saveAs(longest, "longer.mp4");
  finish("long.mp4");
  finish("longer.mp4");
  dispatch_.release(worker());
  settle();
  EXPECT_EQ(second->status(), DownloadStatus::completed) << "its added id must fit";

  // What nobody waits for any more is replaced.
  put("third.mp4", "left behind");
  save("third.mp4");
  finish("third.mp4");
  EXPECT_EQ(contents_.back(), "content of third.mp4");
}

TEST_F(EngineTest, ANewcomerLeavesTheNameToARunWhoseFileSomebodyDeleted) {
  dispatch_.hold(worker());
  save("clip.mp4");
  finish("clip.mp4");
  files_.removeItem(home_ / "Documents/clip.mp4");
  cleanUp();  // takes its record, too
  saveAs("clip.mp4", "other.mp4");
  finish("other.mp4");
  EXPECT_THAT(documents(), testing::ElementsAre("clip-1800000001.mp4"));
}

TEST_F(EngineTest, TheNameThatTheServerGivesIsTheDownloads) {
  const DownloadRequest request{.url = url("a.mp4"), .album = "Trips", .filename = "a.mp4", .takesServersName = true};
  const auto task = engine_->startDownloadFileBy(request, delegate_);
  transfers_.suggest(request.url, "b c.mp4");
  finish("a.mp4");
  EXPECT_EQ(task->filename(), "b c.mp4");
  EXPECT_THAT(stored("ActiveDownloads"), testing::HasSubstr("\"b c.mp4\""));
}

TEST_F(EngineTest, AFailedRunIsToldAndWhatTheAlbumDidNotTakeGoesWithItsDownload) {
  for (const bool isAtTheAlbum : {false, true}) {
    ScriptedStep failing({ProcessingStage::savingToPhotos}, notes_, [&](ProcessingRun& run, auto) {
      const Error failure("Test", -1, "there is no room");
      if (!isAtTheAlbum) throw failure;
      run.outcome.setFailed(RunOutcome::Where::saving, std::make_exception_ptr(failure));
    });
    engine_ = DownloadManager::create(platform_, {.last = &failing});
    const std::string name = isAtTheAlbum ? "unsaved" : "unrepaired";  // the sweep takes neither
    const auto task = save(name);
    finish(name);
    EXPECT_EQ(task->status(), DownloadStatus::failed);
    EXPECT_EQ(delegate_->heard.back(), "failed " + std::to_string(task->id));
    engine_->removeDownload(task->id);
    settle();
    EXPECT_EQ(files_.fileExists(home_ / "Documents" / name), !isAtTheAlbum);
  }
}

TEST_F(EngineTest, AFileThatIsNotThereWhenItIsToBeTakenFailsItsDownload) {
  save("a.mp4");
  transfers_.finishWithoutFile(url("a.mp4"));
  transfers_.complete(url("a.mp4"));
  engine_->takeIn(home_ / "gone.mp4", {.url = "", .album = "Trips", .filename = "a.mp4"}, delegate_);
  settle();
  for (const auto& task : engine_->getDownloads()) EXPECT_EQ(task->status(), DownloadStatus::failed);
  EXPECT_EQ(heard(), "failed 1800000000 failed 1800000001");
}

TEST_F(EngineTest, TheEndOfATransferTellsNothingOfARunWhoseRecordCannotBeRead) {
  dispatch_.hold(worker());
  save("clip.mp4");
  finish("clip.mp4");
  defaults_.setData(ProcessingStateManager::userDefaultsKey, bytesOf("damaged"));
  transfers_.complete(url("clip.mp4"));
  settle();
  EXPECT_EQ(heard(), "");
  dispatch_.release(worker());
  settle();
  EXPECT_EQ(heard(), "finished 1800000000");
}

TEST_F(EngineTest, TheLateCancellationOfOneTransferHitsNoOtherOfTheSameURL) {
  engine_->setMaxConcurrentDownloads(1);
  auto first = save("clip.mp4");
  auto waiting = save("clip.mp4");
  engine_->cancelDownloadFileBy(first->id);
  settle();
  transfers_.deliverCancellations();
  settle();
  EXPECT_EQ(waiting->status(), DownloadStatus::downloading);
  finish("clip.mp4");
  EXPECT_EQ(waiting->status(), DownloadStatus::completed);
}

}  // namespace
}  // namespace tarn::test
