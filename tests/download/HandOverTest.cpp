#include "download/EngineTest.h"

namespace tarn::test {
namespace {

TEST_F(EngineTest, BytesWrittenReachTheTask) {
  auto task = save("clip.mp4");
  transfers_.writeData(url("clip.mp4"), 25, 100);
  auto fields = task->snapshot();
  EXPECT_EQ(fields.bytesDownloaded, 25);
  EXPECT_EQ(fields.totalBytes, 100);
  EXPECT_DOUBLE_EQ(fields.progress, 0.25);
}

TEST_F(EngineTest, NamesThatLeaveDocumentsFailLikeAFailedMove) {
  const std::string names[] = {"../x", "/etc/x", "", ".", "..", std::string("a\0b", 3), std::string(300, 'n')};
  for (const std::string& name : names) {
    SCOPED_TRACE(name);
    auto task = engine_->startDownloadFileBy(url("clip.mp4"), "Trips", name, false, false, delegate_);
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
  auto task = engine_->startDownloadFileBy(url("line.mp4"), "Trips", "two\nlines.mp4", false, false, delegate_);
  finish("line.mp4");
  settle();
  EXPECT_EQ(task->status(), DownloadStatus::completed) << "a line end is a legal name";
}

TEST_F(EngineTest, ANewcomerNeverReplacesAnotherDownloadsPendingFile) {
  dispatch_.hold(worker());
  save("clip.mp4");
  engine_->startDownloadFileBy(url("other.mp4"), "Trips", "clip.mp4", false, false, delegate_);
  finish("clip.mp4");
  finish("other.mp4");
  auto names = documents();
  EXPECT_EQ(names.size(), 2U);
  EXPECT_TRUE(std::ranges::count(names, "clip-1800000001.mp4") == 1) << joinedWords(names);
  dispatch_.release(worker());
  settle();
  EXPECT_EQ(joinedWords(contents_), "content of clip.mp4 content of other.mp4");
  EXPECT_TRUE(documents().empty());

  // What nobody waits for any more is replaced.
  writeFileAtomically(files_, files_.documentsDirectory(true) / "third.mp4", bytesOf("left behind"));
  save("third.mp4");
  finish("third.mp4");
  settle();
  EXPECT_EQ(contents_.back(), "content of third.mp4");
}

TEST_F(EngineTest, ATransferThatFailsGivesItsSlotBack) {
  engine_->setMaxConcurrentDownloads(1);
  auto first = save("a.mp4");
  auto second = save("b.mp4");
  transfers_.complete(url("a.mp4"), URLError(404, "HTTP status 404"));
  settle();
  EXPECT_EQ(first->status(), DownloadStatus::failed);
  EXPECT_EQ(heard(), "failed " + std::to_string(first->id));
  EXPECT_EQ(second->status(), DownloadStatus::downloading);
  transfers_.finishWithoutFile(url("b.mp4"));
  transfers_.complete(url("b.mp4"));
  settle();
  EXPECT_EQ(second->status(), DownloadStatus::failed);
  EXPECT_TRUE(heard().ends_with("failed " + std::to_string(second->id)));
}

TEST_F(EngineTest, ARunThatFailsTellsThePageOnceAndFreesItsSlot) {
  engine_->setMaxConcurrentDownloads(1);
  runFails_ = true;
  std::vector<std::string> told;
  for (const char* name : {"a.mp4", "b.mp4"}) {
    // Only a codec that needs a remux enters the failing step.
    auto task = save(name);
    task->update([&](auto& fields) {
      fields.onDownloadComplete = [&](const auto& download, const auto&) { told.push_back(*download->filename); };
    });
  }
  finish("a.mp4");
  transfers_.complete(url("a.mp4"));
  settle();
  EXPECT_EQ(joinedWords(told), "a.mp4") << "a file without a codec needs no remux, and is saved";
  transfers_.complete(url("b.mp4"), URLError(500, "HTTP status 500"));
  settle();
  EXPECT_EQ(joinedWords(told), "a.mp4");
  EXPECT_TRUE(heard().starts_with("failed ")) << heard();
}

TEST_F(EngineTest, TheLateCancellationOfOneTransferHitsNoOtherOfTheSameURL) {
  engine_->setMaxConcurrentDownloads(1);
  auto first = save("clip.mp4");
  auto waiting = save("clip.mp4");
  engine_->cancelDownloadFileBy(first->id);
  settle();
  EXPECT_EQ(waiting->status(), DownloadStatus::downloading);
  transfers_.deliverCancellations();
  settle();
  EXPECT_EQ(waiting->status(), DownloadStatus::downloading);
  finish("clip.mp4");
  settle();
  EXPECT_EQ(waiting->status(), DownloadStatus::completed);
}

}  // namespace
}  // namespace tarn::test
