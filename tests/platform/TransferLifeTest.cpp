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

constexpr uint64_t size = 300'000;
constexpr uint64_t half = 150'000;

const Bytes& content() {
  static const Bytes bytes = randomBytes(size, 7);
  return bytes;
}

std::unique_ptr<FaultServer> serverOf(std::vector<Reply> replies) {
  auto server = std::make_unique<FaultServer>();
  server->serve("/file", ServedFile::of(content()), std::move(replies));
  return server;
}

/// A transfer that has come to its half and is held there, in a process that then dies.
class TransferRestartTest : public testing::Test {
 protected:
  void fetchHalfAndDie() {
    harness_.start();
    const auto task = harness_.download(server_->url("/file"));
    identifier_ = task->taskIdentifier();
    harness_.listener->waitFor(identifier_, [](const Heard& heard) { return heard.reports > 0; });
    ASSERT_TRUE(eventually([&] { return std::filesystem::file_size(harness_.part(identifier_)) == half; }));
    harness_.stop();
    EXPECT_EQ(task->state(), State::running);
  }

  /// What the next process makes of it; in any case the whole file, under the same identifier.
  void expectTakeUp() {
    harness_.start();
    const Heard heard = harness_.listener->waitForEnd(identifier_);
    EXPECT_FALSE(heard.error);
    EXPECT_EQ(heard.file, content());
    EXPECT_EQ(heard.finishes, 1);
    EXPECT_TRUE(heard.inOrder);
    const auto task = harness_.listener->task(identifier_);
    EXPECT_EQ(task->originalRequestURL(), server_->url("/file"));
    EXPECT_EQ(task->taskDescription(), "description of " + server_->url("/file"));
    EXPECT_EQ(harness_.filesLeft(), 0U);
  }

  std::unique_ptr<FaultServer> server_ = serverOf({{.stallAfter = half}});
  Harness harness_;
  int64_t identifier_ = 0;
};

TEST_F(TransferRestartTest, ATransferGoesOnFromWhateverLiesOnTheDisk) {
  struct Row {
    const char* name;
    std::function<void(const Path& part)> change;
    const char* range;
  };
  const std::vector<Row> rows = {
      {"as it was left", [](const Path&) {}, "bytes=150000-"},
      {"shorter", [](const Path& part) { std::filesystem::resize_file(part, 1000); }, "bytes=1000-"},
      {"gone", [](const Path& part) { std::filesystem::remove(part); }, ""},
      {"whole, which nobody has noted",
       [](const Path& part) {
         std::ofstream out(part, std::ios::binary | std::ios::trunc);
         out.write(reinterpret_cast<const char*>(content().data()), static_cast<std::streamsize>(size));
       },
       "bytes=300000-"},
      {"longer than can be", [](const Path& part) { std::filesystem::resize_file(part, size + 1); }, ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    server_ = serverOf({{.stallAfter = half}});
    fetchHalfAndDie();
    row.change(harness_.part(identifier_));
    expectTakeUp();
    EXPECT_EQ(server_->requests().size(), 2U);
    EXPECT_EQ(server_->requests().back().header("range"), row.range);
    harness_.stop();
  }
}

TEST_F(TransferRestartTest, AnotherVersionIsNeverSplicedToTheOld) {
  fetchHalfAndDie();
  server_->serve("/file", ServedFile::of(randomBytes(size, 8)).withETag("\"v2\""), {{.ignoresIfRange = true}});
  harness_.start();
  EXPECT_EQ(harness_.listener->waitForEnd(identifier_).file, randomBytes(size, 8));
}

TEST_F(TransferRestartTest, StoredTransfersAreKnownBeforeThereIsASessionAndKeepTheirIdentifiers) {
  fetchHalfAndDie();
  harness_.start();
  harness_.session.reset();
  EXPECT_EQ(harness_.service->storedTaskDescriptions(), std::vector{"description of " + server_->url("/file")});
  harness_.stop();
  harness_.start();
  const auto second = harness_.session->downloadTask(server_->url("/file"), "second");
  EXPECT_GT(second->taskIdentifier(), identifier_);
  EXPECT_EQ(second->state(), State::suspended);
  harness_.listener->waitForEnd(identifier_);
  harness_.stop();

  // One that its process had no time to start is started by the next.
  identifier_ = second->taskIdentifier();
  harness_.start();
  EXPECT_EQ(harness_.listener->waitForEnd(identifier_).file, content());
}

TEST_F(TransferRestartTest, AFileNotYetTakenIsHandedOverAgainWithoutTheNetwork) {
  Harness next;
  std::filesystem::create_directories(next.directory());
  harness_.start();
  harness_.listener->onFinish = [&](auto&, const Path&) {
    // The disk as a kill at this moment would leave it, the delivery name included.
    std::filesystem::copy(harness_.directory(), next.directory());
  };
  server_ = serverOf({});
  identifier_ = harness_.download(server_->url("/file"))->taskIdentifier();
  harness_.listener->waitForEnd(identifier_);

  next.start();
  EXPECT_EQ(next.listener->waitForEnd(identifier_).file, content());
  EXPECT_EQ(server_->requests().size(), 1U);
  EXPECT_EQ(next.filesLeft(), 0U);
}

TEST_F(TransferRestartTest, WhatNobodyCanUseIsSwept) {
  fetchHalfAndDie();
  const auto write = [&](const std::string& name, const std::string& text) {
    std::ofstream(harness_.directory() / name) << text;
  };
  write("97.json", "{\"url\": 5}");
  write("97.part", "bytes");
  write("98.json", "");
  write("99.part", "nobody's");
  write("99.delivery", "left over");
  write(".1.json.tmp", "left over");
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
      if (when == When::inTheBody) return harness.listener->heard(id).reports > 0;
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

TEST(TransferCancelTest, FromWithinAnEvent) {
  const auto server = serverOf({{.bytesPerSecond = size}});
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
  EXPECT_EQ(heard.file, content());
  EXPECT_EQ(heard.ends, 1);
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
  EXPECT_EQ(listener->heard(first->taskIdentifier()).finishes, 1);
  EXPECT_EQ(listener->heard(second->taskIdentifier()).ends, 0);
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
  EXPECT_EQ(harness.listener->waitForEnd(task->taskIdentifier()).file, content());
}

}  // namespace
}  // namespace tarn::test
