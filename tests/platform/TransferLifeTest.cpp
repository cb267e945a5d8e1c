#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "TransferHarness.h"
#include "support/Eventually.h"
#include "support/FaultServer.h"

namespace tarn::test {
namespace {

using State = NSURLSessionTaskState;

constexpr uint64_t half = videoSize / 2;

std::unique_ptr<FaultServer> serverOf(std::vector<Reply> replies) {
  auto server = std::make_unique<FaultServer>();
  server->serve("/file", ServedFile::of(video(1)), std::move(replies));
  return server;
}

/// A transfer that has come to its half and is held there, in a process that then dies.
class TransferRestartTest : public testing::Test {
 protected:
  void fetchHalfAndDie() {
    harness_.start();
    const auto task = harness_.download(server_->url("/file"));
    identifier_ = task->taskIdentifier();
    harness_.listener->waitFor(identifier_, [](const Heard& heard) { return heard.reports() > 0; });
    ASSERT_TRUE(eventually([&] { return std::filesystem::file_size(harness_.part(identifier_)) == half; }));
    harness_.stop();
    EXPECT_EQ(task->state(), State::running);
  }

  std::unique_ptr<FaultServer> server_ = serverOf({{.stallAfter = half}});
  Harness harness_;
  int64_t identifier_ = 0;
};

TEST_F(TransferRestartTest, ATransferGoesOnFromWhateverLiesOnTheDisk) {
  // How much of the file lies there: it may be gone, whole without anybody having noted it, or longer than can be.
  const std::pair<std::optional<size_t>, const char*> rows[] = {{half, "bytes=149488-"},
                                                                {1000, "bytes=488-"},
                                                                {std::nullopt, ""},
                                                                {videoSize, "bytes=299488-"},
                                                                {videoSize + 1, ""}};
  for (const auto& [left, range] : rows) {
    SCOPED_TRACE(left.value_or(0));
    server_ = serverOf({{.stallAfter = half}});
    const std::string url = server_->url("/file");
    fetchHalfAndDie();
    Bytes part = video(1);
    part.resize(left.value_or(0));
    harness_.disk.open(harness_.part(identifier_), OpenMode::creating)->write(part);
    if (!left) harness_.disk.removeItem(harness_.part(identifier_));

    harness_.start();
    const Heard heard = harness_.listener->waitForEnd(identifier_);
    EXPECT_FALSE(heard.error);
    EXPECT_EQ(heard.file, video(1));
    EXPECT_TRUE(heard.isInOrder()) << heard.events;
    EXPECT_EQ(heard.task->taskDescription(), "description of " + url);
    EXPECT_EQ(heard.task->originalRequestURL(), url);
    EXPECT_EQ(harness_.filesLeft(), 0U);
    EXPECT_EQ(server_->requests().size(), 2U);
    EXPECT_EQ(server_->requests().back().header("range"), range);
    harness_.stop();
  }
}

TEST_F(TransferRestartTest, ASuspendedTransferKeepsItsBytesAndWaitsOverARestart) {
  harness_.start();
  auto task = harness_.download(server_->url("/file"));
  const int64_t id = task->taskIdentifier();
  harness_.listener->waitFor(id, [](const Heard& heard) { return heard.reports() > 0; });
  ASSERT_TRUE(eventually([&] { return std::filesystem::file_size(harness_.part(id)) == half; }));
  task->setTaskDescription("paused");
  task->suspend();
  EXPECT_EQ(task->state(), State::suspended);
  for (int restarts = 0; restarts < 2; ++restarts) {
    harness_.stop();
    harness_.start();
    ASSERT_EQ(harness_.session->allTasks().size(), 1U);
    task = harness_.session->allTasks()[0];
    EXPECT_EQ(task->state(), State::suspended);
    EXPECT_EQ(task->taskDescription(), "paused");
    EXPECT_EQ(task->transferState().received, half);
    EXPECT_EQ(task->transferState().expected, videoSize);
  }
  task->resume();
  task->suspend();
  task->resume();
  const Heard heard = harness_.listener->waitForEnd(id);
  EXPECT_EQ(heard.file, video(1));
  EXPECT_EQ(server_->requests()[1].header("range"), "bytes=149488-");
  task->suspend();
  EXPECT_EQ(task->state(), State::completed);
}

TEST(TransferSuspendTest, ASuspensionAtAnyMomentSplitsNoFile) {
  // Without a validator, each start begins anew: bytes of a hand-over that is under way must not be touched by it.
  for (int pause = 0; pause < 30; ++pause) {
    SCOPED_TRACE(pause);
    FaultServer server;
    server.serve("/file", ServedFile::of(video(1)), {}, {.omitsValidators = true});
    Harness harness;
    harness.start();
    const auto task = harness.download(server.url("/file"));
    std::this_thread::sleep_for(std::chrono::microseconds(100) * pause);
    task->suspend();
    task->resume();
    const Heard heard = harness.listener->waitForEnd(task->taskIdentifier());
    EXPECT_EQ(heard.file, video(1));
    EXPECT_TRUE(heard.isInOrder()) << heard.events;
    EXPECT_EQ(harness.filesLeft(), 0U);
  }
}

TEST_F(TransferRestartTest, WhatNobodyCanUseIsSwept) {
  fetchHalfAndDie();
  for (const char* name : {"97.json", "97.part", "98.json", "99.part", "99.delivery", ".1.json.tmp"}) {
    std::ofstream(harness_.directory() / name) << "{\"url\": 5}";
  }
  harness_.start();
  EXPECT_EQ(harness_.service->storedTaskDescriptions().size(), 1U);
  EXPECT_EQ(harness_.filesLeft(), 2U);
  EXPECT_GT(harness_.session->downloadTask("http://127.0.0.1/", "")->taskIdentifier(), 98);
}

TEST(TransferCancelTest, CancellationIsHeardOnceInEveryState) {
  enum class When { notStarted, justStarted, beforeTheAnswer, inTheBody, betweenTwoTries, inTheFlush };
  const std::pair<When, Reply> rows[] = {{When::notStarted, {}},
                                         {When::justStarted, {}},
                                         {When::beforeTheAnswer, {.stallAfter = 0}},
                                         {When::inTheBody, {.stallAfter = half}},
                                         {When::betweenTwoTries, {.status = 500}},
                                         {When::inTheFlush, {}}};
  for (const auto& [when, reply] : rows) {
    SCOPED_TRACE(static_cast<int>(when));
    const auto server = serverOf({reply, reply});
    Harness harness;
    harness.options.initialPause = harness.options.maximumPause = std::chrono::seconds(60);
    harness.start();
    const auto task = harness.session->downloadTask(server->url("/file"), "");
    const int64_t id = task->taskIdentifier();
    std::atomic<bool> isFlushing = false;
    std::atomic<bool> mayGoOn = false;
    harness.files.arm({.errnum = 0, .among = {FileOperation::flush}, .strike = [&] {
                         isFlushing = true;
                         eventually([&] { return mayGoOn.load(); });
                       }});
    if (when != When::notStarted) task->resume();
    ASSERT_TRUE(eventually([&, when = when] {
      if (when == When::inTheBody) return harness.listener->heard(id).reports() > 0;
      if (when == When::inTheFlush) return isFlushing.load();
      return when < When::beforeTheAnswer || !server->requests().empty();
    }));

    std::thread other([&] { task->cancel(); });
    task->cancel();
    EXPECT_TRUE(harness.service->storedTaskDescriptions().empty());
    other.join();
    mayGoOn = true;
    const Heard heard = harness.listener->waitForEnd(id);
    EXPECT_EQ(heard.code(), URLError::cancelled);
    EXPECT_FALSE(heard.file);
    EXPECT_EQ(task->state(), State::completed);
    task->cancel();
    task->resume();
    harness.stop();
    EXPECT_EQ(harness.filesLeft(), 0U);
    EXPECT_LE(server->requests().size(), 1U);
  }
}

TEST(TransferCancelTest, ACancelMayComeFromWithinAnEvent) {
  const auto server = serverOf({{.bytesPerSecond = videoSize}});
  Harness harness;
  harness.start();
  harness.listener->onWrite = [](NSURLSessionDownloadTask& task) { task.cancel(); };
  EXPECT_EQ(harness.fetch(server->url("/file")).code(), URLError::cancelled);

  // The last report comes when the file is ready for the hand-over; the cancellation wins.
  harness.listener->onWrite = [&](NSURLSessionDownloadTask& reported) {
    const auto delivery = harness.directory() / (std::to_string(reported.taskIdentifier()) + ".delivery");
    if (std::filesystem::exists(delivery)) reported.cancel();
  };
  Heard heard = harness.fetch(server->url("/file"));
  EXPECT_EQ(heard.code(), URLError::cancelled);
  EXPECT_FALSE(heard.file);
  EXPECT_EQ(harness.filesLeft(), 0U);

  // The file is the delegate's by then: the hand-over wins.
  harness.listener->onWrite = [](auto&) {};
  harness.listener->onFinish = [](NSURLSessionDownloadTask& finished, auto&) { finished.cancel(); };
  heard = harness.fetch(server->url("/file"));
  EXPECT_FALSE(heard.error);
  EXPECT_EQ(heard.file, video(1));
}

TEST(TransferSessionTest, ItsEndWaitsForTheEventThatRunsAndForNoOther) {
  const auto server = serverOf({});
  Harness harness;
  harness.start();
  std::atomic<bool> runs = false;
  std::atomic<bool> mayReturn = false;
  std::atomic<bool> isDestroyed = false;
  const auto listener = harness.listener;
  listener->onFinish = [&](auto&, auto&) {
    runs = true;
    eventually([&] { return mayReturn.load(); });
    EXPECT_FALSE(isDestroyed);
  };
  const auto first = harness.download(server->url("/file"));
  ASSERT_TRUE(eventually([&] { return runs.load(); }));
  const auto second = harness.download(server->url("/file"));
  ASSERT_TRUE(eventually([&] { return server->requests().size() == 2; }));
  std::thread destroyer([&] {
    harness.session.reset();
    isDestroyed = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_FALSE(isDestroyed);
  mayReturn = true;
  destroyer.join();
  EXPECT_TRUE(listener->heard(first->taskIdentifier()).file);
  EXPECT_FALSE(listener->heard(second->taskIdentifier()).isOver());
  first->cancel();
  second->cancel();
}

TEST(TransferSessionTest, AFileIsKeptWhileItsDelegateIsGone) {
  const auto server = serverOf({});
  Harness harness;
  harness.start();
  harness.listener.reset();
  const auto task = harness.download(server->url("/file"));
  ASSERT_TRUE(eventually([&] { return task->fractionCompleted() == 1; }));
  harness.stop();
  harness.start();
  EXPECT_EQ(harness.listener->waitForEnd(task->taskIdentifier()).file, video(1));
}

TEST(TransferSessionTest, AFileNotYetTakenIsHandedOverAgainWithoutTheNetwork) {
  const auto server = serverOf({});
  Harness harness, next;
  harness.start();
  // The disk as a kill at this moment would leave it, the delivery name included.
  harness.listener->onFinish = [&](auto&, auto&) { std::filesystem::copy(harness.directory(), next.directory()); };
  const int64_t id = harness.fetch(server->url("/file")).task->taskIdentifier();
  next.start();
  EXPECT_EQ(next.listener->waitForEnd(id).file, video(1));
  EXPECT_EQ(server->requests().size(), 1U);
  EXPECT_EQ(next.filesLeft(), 0U);
}

}  // namespace
}  // namespace tarn::test
