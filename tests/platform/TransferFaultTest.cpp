#include <gtest/gtest.h>

#include <chrono>

#include "TransferHarness.h"
#include "platform/host/RangeRules.h"
#include "support/Eventually.h"

namespace tarn::test {
namespace {

constexpr uint64_t cut = 100'000;

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
                                                {{.closeAfter = cut}, "the connection broke off"},
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
