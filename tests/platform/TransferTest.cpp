#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <thread>

#include "TransferHarness.h"
#include "platform/host/RangeRules.h"
#include "support/Eventually.h"

namespace tarn::test {
namespace {

using State = NSURLSessionTaskState;

constexpr uint64_t half = videoSize / 2;

/// A transfer that has come to its half and is held there.
struct HalfTransfer : ServedHarness {
  HalfTransfer() : ServedHarness(Replies{{.stallAfter = half}}) {
    EXPECT_TRUE(eventually([&] { return std::filesystem::file_size(part(id)) == half; }));
  }

  std::shared_ptr<NSURLSessionDownloadTask> task = (start(), fetchSome(url));
  const int64_t id = task->taskIdentifier();
};

TEST(TransferRestartTest, ATransferGoesOnFromWhateverLiesOnTheDisk) {
  // How much of the file lies there: it may be gone, whole without anybody having noted it, or longer than can be.
  const std::pair<std::optional<size_t>, const char*> rows[] = {{half, "bytes=149488-"},
                                                                {1000, "bytes=488-"},
                                                                {std::nullopt, ""},
                                                                {videoSize, "bytes=299488-"},
                                                                {videoSize + 1, ""}};
  for (const auto& [left, range] : rows) {
    SCOPED_TRACE(left.value_or(0));
    HalfTransfer harness;
    harness.stop();
    EXPECT_EQ(harness.task->state(), State::running);
    Bytes part = video(1);
    part.resize(left.value_or(0));
    harness.disk.open(harness.part(harness.id), OpenMode::creating)->write(part);
    if (!left) harness.disk.removeItem(harness.part(harness.id));

    harness.start();
    const Heard heard = harness.listener->waitForEnd(harness.id);
    EXPECT_FALSE(heard.error);
    EXPECT_EQ(heard.file, video(1));
    EXPECT_TRUE(heard.isInOrder()) << heard.events;
    EXPECT_EQ(heard.task->taskDescription(), "description of " + harness.url);
    EXPECT_EQ(heard.task->originalRequestURL(), harness.url);
    EXPECT_EQ(harness.filesLeft(), 0U);
    EXPECT_EQ(harness.server.requests().size(), 2U);
    EXPECT_EQ(harness.server.requests().back().header("range"), range);
  }
}

TEST(TransferRestartTest, ASuspendedTransferKeepsItsBytesAndWaitsOverARestart) {
  HalfTransfer harness;
  auto task = harness.task;
  task->setTaskDescription("paused");
  task->suspend();
  EXPECT_EQ(task->state(), State::suspended);
  for (int restarts = 0; restarts < 2; ++restarts) {
    harness.stop();
    harness.start();
    ASSERT_EQ(harness.session->allTasks().size(), 1U);
    task = harness.session->allTasks()[0];
    EXPECT_EQ(task->state(), State::suspended);
    EXPECT_EQ(task->taskDescription(), "paused");
    EXPECT_EQ(task->transferState().received, half);
    EXPECT_EQ(task->transferState().expected, videoSize);
  }
  task->resume();
  task->suspend();
  task->resume();
  EXPECT_EQ(harness.listener->waitForEnd(harness.id).file, video(1));
  EXPECT_EQ(harness.server.requests()[1].header("range"), "bytes=149488-");
  task->suspend();
  EXPECT_EQ(task->state(), State::completed);
}

TEST(TransferSuspendTest, ASuspensionAtAnyMomentSplitsNoFile) {
  // Without a validator, each start begins anew: bytes of a hand-over that is under way must not be touched by it.
  for (int pause = 0; pause < 30; ++pause) {
    SCOPED_TRACE(pause);
    ServedHarness harness({}, {.omitsValidators = true});
    harness.start();
    const auto task = harness.download(harness.url);
    std::this_thread::sleep_for(std::chrono::microseconds(100) * pause);
    task->suspend();
    task->resume();
    const Heard heard = harness.listener->waitForEnd(task->taskIdentifier());
    EXPECT_EQ(heard.file, video(1));
    EXPECT_TRUE(heard.isInOrder()) << heard.events;
    EXPECT_EQ(harness.filesLeft(), 0U);
  }
}

TEST(TransferRestartTest, WhatNobodyCanUseIsSwept) {
  HalfTransfer harness;
  harness.stop();
  for (const char* name : {"97.json", "97.part", "98.json", "99.part", "99.delivery", ".1.json.tmp"}) {
    std::ofstream(harness.directory() / name) << "{\"url\": 5}";
  }
  harness.start();
  EXPECT_EQ(harness.service->storedTaskDescriptions().size(), 1U);
  EXPECT_EQ(harness.filesLeft(), 2U);
  EXPECT_GT(harness.session->downloadTask("http://127.0.0.1/", "")->taskIdentifier(), 98);
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
    ServedHarness harness(ServedHarness::Replies{reply, reply});
    harness.options.initialPause = harness.options.maximumPause = std::chrono::seconds(60);
    harness.start();
    const auto task = harness.session->downloadTask(harness.url, "");
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
      return when < When::beforeTheAnswer || !harness.server.requests().empty();
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
    EXPECT_LE(harness.server.requests().size(), 1U);
  }
}

TEST(TransferCancelTest, ACancelMayComeFromWithinAnEvent) {
  ServedHarness harness(ServedHarness::Replies{{.bytesPerSecond = videoSize}});
  harness.start();
  harness.listener->onWrite = [](NSURLSessionDownloadTask& task) { task.cancel(); };
  EXPECT_EQ(harness.fetch(harness.url).code(), URLError::cancelled);

  // The last report comes when the file is ready for the hand-over; the cancellation wins.
  harness.listener->onWrite = [&](NSURLSessionDownloadTask& reported) {
    const auto delivery = harness.directory() / (std::to_string(reported.taskIdentifier()) + ".delivery");
    if (std::filesystem::exists(delivery)) reported.cancel();
  };
  Heard heard = harness.fetch(harness.url);
  EXPECT_EQ(heard.code(), URLError::cancelled);
  EXPECT_FALSE(heard.file);
  EXPECT_EQ(harness.filesLeft(), 0U);

  // The file is the delegate's by then: the hand-over wins.
  harness.listener->onWrite = [](auto&) {};
  harness.listener->onFinish = [](NSURLSessionDownloadTask& finished, auto&) { finished.cancel(); };
  heard = harness.fetch(harness.url);
  EXPECT_FALSE(heard.error);
  EXPECT_EQ(heard.file, video(1));
}

TEST(TransferSessionTest, ItsEndWaitsForTheEventThatRunsAndForNoOther) {
  ServedHarness harness;
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
  const auto first = harness.download(harness.url);
  ASSERT_TRUE(eventually([&] { return runs.load(); }));
  const auto second = harness.download(harness.url);
  ASSERT_TRUE(eventually([&] { return harness.server.requests().size() == 2; }));
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
  ServedHarness harness;
  harness.start();
  harness.listener.reset();
  const auto task = harness.download(harness.url);
  ASSERT_TRUE(eventually([&] { return task->fractionCompleted() == 1; }));
  harness.stop();
  harness.start();
  EXPECT_EQ(harness.listener->waitForEnd(task->taskIdentifier()).file, video(1));
}

TEST(TransferSessionTest, AFileNotYetTakenIsHandedOverAgainWithoutTheNetwork) {
  ServedHarness harness;
  Harness next;
  harness.start();
  // The disk as a kill at this moment would leave it, the delivery name included.
  harness.listener->onFinish = [&](auto&, auto&) { std::filesystem::copy(harness.directory(), next.directory()); };
  const int64_t id = harness.fetch(harness.url).task->taskIdentifier();
  next.start();
  EXPECT_EQ(next.listener->waitForEnd(id).file, video(1));
  EXPECT_EQ(harness.server.requests().size(), 1U);
  EXPECT_EQ(next.filesLeft(), 0U);
}

TEST(TransferConnectionTest, RefusedConnectionsAreTriedAgain) {
  const uint16_t port = FaultServer::closedPort();
  Harness harness;
  harness.options.maximumTries = 1000;
  harness.start();
  const auto task = harness.download("http://127.0.0.1:" + std::to_string(port) + "/file");
  ASSERT_TRUE(eventually([&] { return task->transferState().retry.value_or(TransferState::Retry()).number > 3; }));
  const FaultServer server(port, {{"/file", ServedFile::of(video(1))}});
  EXPECT_EQ(harness.listener->waitForEnd(task->taskIdentifier()).file, video(1));
}

TEST(TransferConnectionTest, WhyATransferWaitsForAnotherTryIsTold) {
  const std::pair<Reply, const char*> rows[] = {{{}, "connection refused"},
                                                {{.status = 503}, "the server answered 503"},
                                                {{.closeAfter = half}, "the connection broke off"},
                                                {{.status = 206}, "the server sent another range than was asked for"}};
  for (const auto& [reply, why] : rows) {
    ServedHarness harness(ServedHarness::Replies{reply});
    harness.options.initialPause = harness.options.maximumPause = std::chrono::seconds(60);
    harness.start();
    const std::string nobodys = "http://127.0.0.1:" + std::to_string(FaultServer::closedPort()) + "/file";
    const auto task = harness.download(why == rows[0].second ? nobodys : harness.url);
    ASSERT_TRUE(eventually([&] { return task->transferState().retry.has_value(); }));
    const TransferState::Retry retry = *task->transferState().retry;
    EXPECT_EQ(retry.why, why);
    EXPECT_EQ(retry.number, 1);
    EXPECT_EQ(retry.most, 4);
    EXPECT_GT(retry.in, std::chrono::seconds(10));
    task->suspend();
    EXPECT_FALSE(task->transferState().retry);
  }
}

TEST(TransferConnectionTest, OneThatNothingUsesIsClosedSoon) {
  ServedHarness harness;
  harness.options.idleTime = std::chrono::milliseconds(20);
  harness.start();
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(harness.fetch(harness.url).file, video(1));
    EXPECT_TRUE(eventually([&] { return harness.server.openConnections() == 0; }));
  }
}

TEST(TransferConnectionTest, ATransferReportsInModeration) {
  ServedHarness harness({}, {.bytesPerSecond = videoSize / 60});
  harness.start();
  const auto began = std::chrono::steady_clock::now();
  const auto task = harness.download(harness.url);
  const Heard heard =
      harness.listener->waitFor(task->taskIdentifier(), [](const Heard& soFar) { return soFar.reports() >= 3; });
  EXPECT_LE(heard.reports(), (std::chrono::steady_clock::now() - began) / harness.options.reportInterval + 1);
  EXPECT_EQ(heard.expected, static_cast<int64_t>(videoSize));
  task->cancel();
}

TEST(TransferConnectionTest, WhatCannotBeFetchedMakesNoTask) {
  Harness harness;
  harness.start();
  for (const char* url : {"ftp://127.0.0.1/x", "http://127.0.0.1/\xff"}) {
    EXPECT_THROW(harness.session->downloadTask(url, ""), URLError) << url;
  }
  EXPECT_THROW(harness.service->makeBackgroundSession("downloads", harness.listener), URLError);
  EXPECT_TRUE(harness.service->storedTaskDescriptions().empty());
}

TEST(TransferDiskTest, ADiskThatFailsEndsTheTransferAndLeavesNothing) {
  using enum FileOperation;
  int failures = 0;
  bool fired = true;
  for (uint64_t call = 1; fired; ++call) {
    SCOPED_TRACE(call);
    ServedHarness harness;
    harness.start();
    harness.files.arm({.call = call,
                       .errnum = ENOSPC,
                       .effect = Fault::Effect::half,
                       .among = {open, write, flush, close, createDirectory, copy, link, replace}});
    Heard heard;
    try {
      heard = harness.fetch(harness.url);
    } catch (const PosixError& error) {
      heard.error = error;
    }
    fired = harness.files.fired();
    EXPECT_EQ(heard.file.has_value(), !heard.error);
    EXPECT_TRUE(heard.error ? heard.code() == ENOSPC && fired : heard.file == video(1));
    EXPECT_TRUE(!harness.disk.fileExists(harness.directory()) || harness.filesLeft() == 0);
    if (heard.error) ++failures;
  }
  EXPECT_GT(failures, 10);
}

TEST(TransferRangeTest, AFileOfThisSecondMayChangeInIt) {
  ResponseHead head;
  head.lastModified = head.date = "Tue, 01 Jul 2025 10:00:00 GMT";
  EXPECT_EQ(head.validator(), "");
  head.date = "Tue, 01 Jul 2025 10:00:01 GMT";
  EXPECT_EQ(head.validator(), head.lastModified);
}

}  // namespace
}  // namespace tarn::test
