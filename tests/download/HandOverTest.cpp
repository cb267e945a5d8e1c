#include <gmock/gmock.h>

#include <algorithm>

#include "download/EngineTest.h"
#include "platform/UTF8.h"

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

  for (const std::string& tail : {std::string(".mp4"), "." + std::string(40, 'e')}) {
    std::string longest = "x";
    while (longest.size() + 2 + tail.size() <= 255) longest += "\u00e9";
    longest = std::string(255 - longest.size() - tail.size(), 'y') + longest + tail;
    dispatch_.hold(worker());
    saveAs(longest, "long.mp4");
    const auto second = saveAs(longest, "longer.mp4");
    finish("long.mp4");
    finish("longer.mp4");
    EXPECT_NE(second->status(), DownloadStatus::failed) << "its added id must fit";
    EXPECT_TRUE(std::ranges::all_of(documents(), isUTF8));
    dispatch_.release(worker());
    settle();
    EXPECT_EQ(second->status(), DownloadStatus::completed);
  }

  // What nobody waits for any more is replaced.
  put("third.mp4", "left behind");
  save("third.mp4");
  finish("third.mp4");
  EXPECT_EQ(contents_.back(), "content of third.mp4");
}

TEST_F(EngineTest, ATransferThatEndsWithoutItsFileFails) {
  const auto task = save("a.mp4");
  transfers_.finishWithoutFile(url("a.mp4"));
  transfers_.complete(url("a.mp4"));
  settle();
  EXPECT_EQ(task->status(), DownloadStatus::failed);
  EXPECT_EQ(heard(), "failed 1800000000");
}

TEST_F(EngineTest, AFileThatIsGoneWhenItIsTakenInIsToldToHaveFailed) {
  const auto task = engine_->takeIn(home_ / "gone.mp4", {.url = "", .album = "Trips", .filename = "a.mp4"}, delegate_);
  settle();
  EXPECT_EQ(task->status(), DownloadStatus::failed);
  EXPECT_EQ(heard(), "failed " + std::to_string(task->id));
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
