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

TEST_F(EngineTest, ACancelledDownloadIsGoneWhereverItWas) {
  enum class Where { waitingForASlot, downloading, waitingForItsRun, aboutToRun };
  for (Where where : {Where::waitingForASlot, Where::downloading, Where::waitingForItsRun, Where::aboutToRun}) {
    SCOPED_TRACE(static_cast<int>(where));
    engine_->setMaxConcurrentDownloads(where == Where::waitingForASlot ? 1 : 2);
    dispatch_.hold(worker());
    save("other.mp4");
    auto task = save("clip.mp4");
    task->update([](auto& fields) {
      fields.onDownloadComplete = [](const auto&, const auto&) { ADD_FAILURE() << "the page must not hear of it"; };
    });
    if (where == Where::waitingForItsRun) finish("other.mp4");
    if (where == Where::waitingForItsRun || where == Where::aboutToRun) finish("clip.mp4");
    delegate_->heard.clear();
    engine_->cancelDownloadFileBy(task->id);
    settle();
    transfers_.deliverCancellations();
    if (where != Where::waitingForItsRun) finish("other.mp4");
    dispatch_.release(worker());
    settle();
    EXPECT_TRUE(engine_->getDownloads().size() == 1 && task->status() == DownloadStatus::cancelled);
    EXPECT_EQ(storedStates(), "[]");
    EXPECT_EQ(contents_.back(), "content of other.mp4");
    EXPECT_EQ(heard().find(std::to_string(task->id)), std::string::npos) << heard();
    EXPECT_TRUE(save("next1.mp4")->status() == DownloadStatus::downloading) << "its slot is free";
    if (where != Where::waitingForASlot) {
      EXPECT_TRUE(save("next2.mp4")->status() == DownloadStatus::downloading);
      EXPECT_TRUE(save("next3.mp4")->status() == DownloadStatus::queued) << "and was given back once";
    }
    engine_->clearAllStates();
    settle();
    transfers_.deliverCancellations();
    EXPECT_TRUE(documents().empty()) << "the sweep takes the file of the cancelled run";
  }
}

TEST_F(EngineTest, ACancelDuringARunStopsItAtItsNextCheck) {
  ScriptedStep cancelling({ProcessingStage::syncFixing}, notes_, [&](ProcessingRun& run, auto) {
    engine_->cancelDownloadFileBy(run.download->id);
    run.token->throwIfCancelled();
  });
  engine_ = DownloadManager::create(platform_, {.sync = &cancelling, .last = &last_});
  save("again.mp4");
  finish("again.mp4");
  EXPECT_EQ(joinedWords(notes_), "syncFixing");
  EXPECT_EQ(storedStates(), "[]");
  EXPECT_TRUE(lines_.contains("Cancelling active processing for download 1800000000"));
}

TEST_F(EngineTest, CancelAllStopsEverythingAndBlocksForHalfASecond) {
  dispatch_.hold(worker());
  for (const char* name : {"a.mp4", "b.mp4", "c.mp4", "d.mp4"}) save(name);
  finish("a.mp4");
  finish("b.mp4");
  engine_->cancelAll();
  EXPECT_FALSE(save("e.mp4"));
  EXPECT_TRUE(lines_.contains("startDownloadFileBy blocked - call clearAllStates() to resume. Rejecting: e.mp4"));
  dispatch_.release(worker());
  settle();
  transfers_.deliverCancellations();
  EXPECT_TRUE(contents_.empty());
  EXPECT_TRUE(engine_->getDownloads().empty());
  EXPECT_EQ(storedStates(), "[]");
  EXPECT_EQ(stored("ActiveDownloads"), "none");
  EXPECT_TRUE(documents().empty());
  dispatch_.advance(std::chrono::milliseconds(499));
  EXPECT_FALSE(save("e.mp4"));
  dispatch_.advance(std::chrono::milliseconds(1));
  ASSERT_TRUE(save("e.mp4"));
  finish("e.mp4");
  EXPECT_EQ(contents(), "content of e.mp4");
}

TEST_F(EngineTest, ClearAllLiftsTheBlockAndSparesWhatComesAfterIt) {
  save("a.mp4");
  engine_->cancelAll();
  engine_->clearAllStates();
  auto task = save("b.mp4");
  ASSERT_TRUE(task);
  settle();
  ASSERT_EQ(engine_->getDownloads().size(), 1U) << "the wipe is posted, and must not take what was started since";
  finish("b.mp4");
  EXPECT_EQ(contents(), "content of b.mp4");
}

}  // namespace
}  // namespace tarn::test
