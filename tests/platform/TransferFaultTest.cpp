#include <curl/curl.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "TransferHarness.h"
#include "platform/host/RangeRules.h"
#include "support/Eventually.h"
#include "support/FaultServer.h"

namespace tarn::test {
namespace {

constexpr uint64_t cut = 100'000;

TEST(TransferConnectionTest, RefusedConnectionsAreTriedAgain) {
  const uint16_t port = FaultServer::closedPort();
  const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/file";
  Harness harness;
  harness.start();
  EXPECT_EQ(harness.fetch(url).code(), CURLE_COULDNT_CONNECT);

  harness.stop();
  harness.options.maximumTries = 1000;
  harness.start();
  const auto task = harness.download(url);
  ASSERT_TRUE(eventually([&] { return task->transferState().retry.value_or(TransferState::Retry()).number > 3; }));
  const auto retry = task->transferState().retry;
  if (retry) {  // no try is under way just now
    EXPECT_EQ(retry->why, "connection refused");
    EXPECT_EQ(retry->most, 999);
    EXPECT_LE(retry->in, harness.options.maximumPause);
  }
  const FaultServer server(port, {{"/file", ServedFile::of(video(1))}});
  EXPECT_EQ(harness.listener->waitForEnd(task->taskIdentifier()).file, video(1));
}

TEST(TransferConnectionTest, WhyATransferWaitsForAnotherTryIsTold) {
  const std::pair<Reply, const char*> rows[] = {{{.status = 503}, "the server answered 503"},
                                                {{.closeAfter = cut}, "the connection broke off"},
                                                {{.status = 206}, "the server sent another range than was asked for"}};
  for (const auto& [reply, why] : rows) {
    FaultServer server;
    server.serve("/file", ServedFile::of(video(1)), {reply});
    Harness harness;
    harness.options.initialPause = harness.options.maximumPause = std::chrono::seconds(60);
    harness.start();
    const auto task = harness.download(server.url("/file"));
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
  FaultServer server;
  server.serve("/file", ServedFile::of(video(1)), {}, {.bytesPerSecond = videoSize / 60});
  Harness harness;
  harness.start();
  const auto began = std::chrono::steady_clock::now();
  const auto task = harness.download(server.url("/file"));
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
  FaultServer server;
  server.serve("/file", ServedFile::of(video(1)));
  using enum FileOperation;
  int failures = 0;
  bool fired = true;
  for (uint64_t call = 1; fired; ++call) {
    SCOPED_TRACE(call);
    Harness harness;
    harness.start();
    harness.files.arm({.call = call,
                       .errnum = ENOSPC,
                       .effect = Fault::Effect::half,
                       .among = {open, write, flush, close, createDirectory, copy, link, replace}});
    Heard heard;
    try {
      heard = harness.fetch(server.url("/file"));
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
