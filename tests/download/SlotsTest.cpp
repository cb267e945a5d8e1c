#include <gmock/gmock.h>

#include "download/EngineTest.h"

namespace tarn::test {
namespace {

using enum DownloadStatus;
using State = NSURLSessionTaskState;

class SlotsTest : public EngineTest {
 protected:
  DownloadTaskPointer task(int64_t id) {
    const auto tasks = engine_->getDownloads();
    return *std::ranges::find(tasks, id, &DownloadTask::id);
  }
  State stateOf(const std::string& name) { return transfers_.task(url(name))->state(); }
  bool isPaused(int64_t id) { return engine_->getTransferStates().at(id).isPaused; }
};

TEST_F(SlotsTest, ARaisedLimitStartsWhatWaitsAndALoweredOneStopsNothing) {
  std::vector<DownloadTaskPointer> tasks;
  for (int i = 0; i < 5; ++i) tasks.push_back(save("clip" + std::to_string(i) + ".mp4"));
  EXPECT_EQ(tasks[2]->status(), downloading);
  EXPECT_EQ(tasks[3]->status(), queued);
  for (const int limit : {5, 1}) {
    engine_->setMaxConcurrentDownloads(limit);
    for (const auto& started : tasks) EXPECT_EQ(started->status(), downloading);
  }
}

TEST_F(SlotsTest, AStoppedLineStartsNoneWhateverTheLimitBeforeTheNextProcess) {
  engine_->setMaxConcurrentDownloads(1);
  const int64_t running = save("a.mp4")->id;
  const auto waiting = save("b.mp4");
  engine_->stopStarting();
  engine_->setMaxConcurrentDownloads(2);
  engine_->cancelDownloadFileBy(running);
  settle();
  EXPECT_EQ(waiting->status(), queued);
  restart();
  EXPECT_EQ(task(waiting->id)->status(), downloading);
}

TEST_F(SlotsTest, CancelAllBlocksForHalfASecondAndClearAllLiftsThat) {
  save("a.mp4");
  settle();
  put("nobodys.mp4", "video");
  engine_->cancelAll();
  EXPECT_FALSE(save("b.mp4"));
  settle();
  EXPECT_EQ(stored("ActiveDownloads"), "none");
  EXPECT_TRUE(documents().empty());
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

TEST_F(SlotsTest, APausedDownloadLeavesItsSlotAndWaitsForOneWhenItGoesOn) {
  engine_->setMaxConcurrentDownloads(1);
  const int64_t a = save("a.mp4")->id, b = save("b.mp4")->id, c = save("c.mp4")->id;
  transfers_.writeData(url("a.mp4"), 10, 100);
  EXPECT_TRUE(engine_->pauseDownloadFileBy(c)) << "one in the line too";
  EXPECT_TRUE(engine_->pauseDownloadFileBy(a));
  EXPECT_TRUE(engine_->pauseDownloadFileBy(a));
  EXPECT_EQ(stateOf("a.mp4"), State::suspended);
  EXPECT_EQ(stateOf("b.mp4"), State::running);
  EXPECT_EQ(task(a)->status(), downloading) << "its status stays";
  EXPECT_EQ(engine_->getQueuedDownloadCount(), 0U);
  EXPECT_TRUE(isPaused(a) && !isPaused(b) && isPaused(c));
  EXPECT_EQ(engine_->getTransferStates().at(a).received, 10U);
  EXPECT_EQ(engine_->getTransferStates().at(a).expected, 100U);

  EXPECT_TRUE(engine_->resumeDownloadFileBy(a));
  EXPECT_FALSE(engine_->resumeDownloadFileBy(a));
  EXPECT_TRUE(engine_->resumeDownloadFileBy(c));
  EXPECT_EQ(task(a)->status(), queued) << "the slot is another's by now";
  EXPECT_EQ(stateOf("a.mp4"), State::suspended);
  for (const char* name : {"b.mp4", "a.mp4", "c.mp4"}) {
    EXPECT_EQ(stateOf(name), State::running);
    finish(name);
    transfers_.complete(url(name));
    settle();
  }
  EXPECT_EQ(contents(), "content of b.mp4 content of a.mp4 content of c.mp4");
  EXPECT_THAT(heard(), testing::AllOf(testing::HasSubstr("finished " + std::to_string(a)),
                                      testing::HasSubstr("finished " + std::to_string(c))));
}

TEST_F(SlotsTest, APauseAndItsEndOutliveTheProcess) {
  engine_->setMaxConcurrentDownloads(1);
  const int64_t running = save("a.mp4")->id, waiting = save("b.mp4", true)->id;
  engine_->pauseDownloadFileBy(waiting);
  engine_->pauseDownloadFileBy(running);
  restart();
  EXPECT_EQ(task(running)->status(), downloading);
  EXPECT_EQ(task(waiting)->status(), queued);
  EXPECT_TRUE(isPaused(running) && isPaused(waiting));
  EXPECT_EQ(stateOf("a.mp4"), State::suspended);
  EXPECT_EQ(stateOf("b.mp4"), State::suspended);

  engine_->resumeDownloadFileBy(waiting);
  engine_->resumeDownloadFileBy(running);  // into the line
  restart();
  EXPECT_FALSE(isPaused(running) || isPaused(waiting));
  EXPECT_EQ(transfers_.tasks().size(), 2U) << "each goes on with the transfer that it had";
  EXPECT_EQ(stateOf("b.mp4"), State::running);
  finish("b.mp4");
  finish("a.mp4");
  EXPECT_EQ(contents(), "content of b.mp4 content of a.mp4");
  EXPECT_TRUE(task(waiting)->request.skipVideoFix);

  for (const char* name : {"c.mp4", "d.mp4"}) save(name);
  engine_->pauseDownloadFileBy(save("e.mp4")->id);
  restart();
  EXPECT_EQ(engine_->getQueuedDownloadCount(), 0U) << "a paused one does not wait for a slot";
}

TEST_F(SlotsTest, OnlyATransferThatIsNotOverCanBePaused) {
  const int64_t id = save("a.mp4")->id;
  EXPECT_FALSE(engine_->pauseDownloadFileBy(id + 1));
  EXPECT_FALSE(engine_->resumeDownloadFileBy(id));
  engine_->pauseDownloadFileBy(id);
  engine_->cancelDownloadFileBy(id);
  EXPECT_FALSE(engine_->resumeDownloadFileBy(id));
  settle();
  transfers_.deliverCancellations();
  EXPECT_TRUE(transfers_.tasks().empty()) << "a paused one can be cancelled";

  const int64_t ending = save("c.mp4")->id;
  const auto transfer = transfers_.task(url("c.mp4"));
  transfer->cancel();
  EXPECT_FALSE(engine_->pauseDownloadFileBy(ending));
  EXPECT_FALSE(task(ending)->isPaused());
  EXPECT_FALSE(NotedDownload::parse(transfer->taskDescription()).value().isPaused) << "nor for the next process";

  const int64_t other = save("b.mp4")->id;
  dispatch_.hold(worker());
  finish("b.mp4");
  EXPECT_FALSE(engine_->pauseDownloadFileBy(other));
  EXPECT_FALSE(task(other)->isPaused());
}

}  // namespace
}  // namespace tarn::test
