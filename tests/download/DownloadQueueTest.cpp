#include "download/EngineTest.h"

namespace tarn::test {
namespace {

TEST_F(EngineTest, ARaisedLimitStartsWhatWaitsAndALoweredOneStopsNothing) {
  std::vector<DownloadTaskPointer> tasks;
  for (int i = 0; i < 5; ++i) tasks.push_back(save("clip" + std::to_string(i) + ".mp4"));
  for (int i = 0; i < 5; ++i) EXPECT_EQ(tasks[static_cast<size_t>(i)]->id, firstId + i) << "ids of one second";
  EXPECT_EQ(tasks[2]->status(), DownloadStatus::downloading);
  EXPECT_EQ(tasks[3]->status(), DownloadStatus::queued);
  for (const int limit : {5, 1}) {
    engine_->setMaxConcurrentDownloads(limit);
    for (const auto& task : tasks) EXPECT_EQ(task->status(), DownloadStatus::downloading);
  }
}

TEST_F(EngineTest, AStoppedLineStartsNoneWhateverTheLimit) {
  engine_->setMaxConcurrentDownloads(1);
  save("a.mp4");
  const auto waiting = save("b.mp4");
  engine_->stopStarting();
  engine_->setMaxConcurrentDownloads(2);
  EXPECT_EQ(waiting->status(), DownloadStatus::queued);
}

TEST_F(EngineTest, CancelAllBlocksForHalfASecondAndClearAllLiftsThat) {
  save("a.mp4");
  engine_->cancelAll();
  EXPECT_FALSE(save("b.mp4"));
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
