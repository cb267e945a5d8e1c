#include "download/EngineTest.h"

namespace tarn::test {
namespace {

TEST_F(EngineTest, TheLimitCountsTransfersAndRunsTogether) {
  dispatch_.hold(worker());
  std::vector<DownloadTaskPointer> tasks;
  for (int i = 0; i < 5; ++i) tasks.push_back(save("clip" + std::to_string(i) + ".mp4"));
  EXPECT_EQ(tasks[2]->status(), DownloadStatus::downloading);
  EXPECT_EQ(tasks[3]->status(), DownloadStatus::queued);
  EXPECT_EQ(engine_->getQueuedDownloadCount(), 2U);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(tasks[static_cast<size_t>(i)]->id, firstId + i) << "ids of one second";

  finish("clip0.mp4");
  EXPECT_EQ(tasks[0]->status(), DownloadStatus::processing);
  EXPECT_EQ(tasks[3]->status(), DownloadStatus::queued) << "a file in the pipeline keeps its slot";
  dispatch_.release(worker());
  settle();
  EXPECT_EQ(tasks[0]->status(), DownloadStatus::completed);
  EXPECT_EQ(tasks[3]->status(), DownloadStatus::downloading);
  EXPECT_EQ(heard(), "finished 1800000000");

  engine_->setMaxConcurrentDownloads(50);
  EXPECT_EQ(engine_->getMaxConcurrentDownloads(), 10);
  EXPECT_EQ(tasks[4]->status(), DownloadStatus::downloading) << "a raised limit starts what waits";
  engine_->setMaxConcurrentDownloads(0);
  EXPECT_EQ(engine_->getMaxConcurrentDownloads(), 1);
  EXPECT_EQ(tasks[4]->status(), DownloadStatus::downloading) << "a lowered one stops nothing";
}

TEST_F(EngineTest, FilesThatFinishTogetherAreProcessedOneByOne) {
  dispatch_.hold(worker());
  for (const char* name : {"a.mp4", "b.mp4", "c.mp4"}) save(name);
  for (const char* name : {"a.mp4", "b.mp4", "c.mp4"}) finish(name);
  settle();
  EXPECT_EQ(heard(), "Queued for processing (1) 1800000001 Queued for processing (2) 1800000002");
  delegate_->heard.clear();
  dispatch_.release(worker());
  settle();
  EXPECT_EQ(heard(),
            "finished 1800000000 Queued for processing (position 1) 1800000002 Starting... 1800000001 "
            "finished 1800000001 Starting... 1800000002 finished 1800000002");
  EXPECT_EQ(contents(), "content of a.mp4 content of b.mp4 content of c.mp4");
  EXPECT_TRUE(documents().empty());
  EXPECT_EQ(storedStates(), "[]");
  EXPECT_TRUE(lines_.contains("Processing queue empty - no more videos to process"));
}

TEST_F(EngineTest, CancelAllBlocksForHalfASecondAndClearAllLiftsThat) {
  save("a.mp4");
  engine_->cancelAll();
  EXPECT_FALSE(save("b.mp4"));
  EXPECT_TRUE(lines_.contains("startDownloadFileBy blocked - call clearAllStates() to resume. Rejecting: b.mp4"));
  settle();
  EXPECT_EQ(stored("ActiveDownloads"), "none");
  dispatch_.advance(std::chrono::milliseconds(499));
  EXPECT_FALSE(save("b.mp4"));
  dispatch_.advance(std::chrono::milliseconds(1));
  EXPECT_TRUE(save("b.mp4"));

  engine_->cancelAll();
  engine_->clearAllStates();
  EXPECT_TRUE(save("c.mp4"));
  settle();
  EXPECT_EQ(engine_->getDownloads().size(), 1U) << "the wipe is posted, and must not take what was started since";
}

}  // namespace
}  // namespace tarn::test
