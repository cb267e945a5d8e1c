#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>

#include "TransferHarness.h"
#include "support/FaultServer.h"
#include "support/LogCapture.h"
#include "support/TarnProcess.h"

namespace tarn::test {
namespace {

constexpr uint64_t half = videoSize / 2;

TransferOptions secretOptions() {
  return {.headers = {"Authorization: Bearer seCret1", "X-Empty:", "X-Own: seCret2"},
          .cookies =
              "# Netscape HTTP Cookie File\r\n127.0.0.1\tFALSE\t/\tFALSE\t0\tsid\tseCret3\r\n"
              "#HttpOnly_127.0.0.1\tFALSE\t/\tFALSE\t0\town\tseCret4\n"
              "127.0.0.1\tFALSE\t/elsewhere\tFALSE\t0\tother\tno\n",
          .referer = "http://127.0.0.1/seCret5",
          .userAgent = "own agent"};
}

/// The fields of a request that are for the first origin alone, as one text.
std::string secretsOf(const ReceivedRequest& request) {
  std::string text;
  for (const char* name : {"authorization", "x-own", "cookie", "referer"}) text += request.header(name) + "|";
  return text;
}

constexpr const char* all = "Bearer seCret1|seCret2|own=seCret4; sid=seCret3|http://127.0.0.1/seCret5|";
constexpr const char* none = "||||";

class TransferOptionsTest : public testing::Test {
 protected:
  const ServedFile file_ = ServedFile::of(video(1));
  FaultServer home_, other_;
  Harness harness_;
};

TEST_F(TransferOptionsTest, SecretsGoToTheFirstOriginAlone) {
  home_.serve("/file", file_);
  home_.serve("/inside", file_, {}, {.status = 302, .location = "file?x"});
  home_.serve("/file?x", file_);
  home_.serve("/out", file_, {}, {.status = 307, .location = other_.url("/file")});
  home_.serve("/round", file_, {}, {.status = 303, .location = other_.url("/back")});
  other_.serve("/file", file_, {{.closeAfter = half}});
  other_.serve("/back", file_, {}, {.status = 301, .location = home_.url("/file")});
  harness_.start();
  for (const char* path : {"/file", "/inside", "/out", "/round"}) {
    EXPECT_EQ(harness_.fetch(home_.url(path), secretOptions()).file, video(1)) << path;
  }
  EXPECT_EQ(home_.requests().size(), 7U);
  for (const ReceivedRequest& request : home_.requests()) {
    EXPECT_EQ(secretsOf(request), all) << request.target;
    EXPECT_TRUE(request.headers.contains("x-empty")) << request.target;
    EXPECT_EQ(request.header("user-agent"), "own agent");
  }
  EXPECT_EQ(other_.requests().size(), 3U);
  for (const ReceivedRequest& request : other_.requests()) {
    EXPECT_EQ(secretsOf(request), none) << request.target;
    EXPECT_FALSE(request.headers.contains("x-empty")) << request.target;
  }
  EXPECT_EQ(other_.requests()[1].header("range"), "bytes=149488-") << "what is no secret goes on";

  const std::string url = home_.url("/out"), named = "http://me:pass@" + url.substr(7);
  EXPECT_EQ(harness_.fetch(named, {}).file, video(1));
  EXPECT_EQ(home_.requests().back().header("authorization"), "Basic bWU6cGFzcw==");
  EXPECT_EQ(secretsOf(other_.requests().back()), none);
}

TEST_F(TransferOptionsTest, TheyAndTheServersNameOutliveTheProcessAndAreTheOwnersAlone) {
  const mode_t before = ::umask(0022);
  LogCapture lines;
  const Reply named{.disposition = "attachment; filename=\"../a b.mp4\"", .stallAfter = half};
  home_.serve("/file", file_, {named, {.status = 503}, {.closeAfter = 10}});
  harness_.start();
  const int64_t id = harness_.fetchSome(home_.url("/file"), secretOptions())->taskIdentifier();
  const Path record = harness_.directory() / (std::to_string(id) + ".json");
  struct stat facts {};
  ASSERT_EQ(::stat(record.c_str(), &facts), 0);
  EXPECT_EQ(facts.st_mode & 0777, 0600U);
  EXPECT_NE(contentOf(record).find("seCret1"), std::string::npos);
  harness_.stop();
  harness_.start();
  const Heard heard = harness_.listener->waitForEnd(id);
  EXPECT_EQ(heard.file, video(1));
  EXPECT_EQ(heard.task->suggestedFilename(), "a b.mp4") << "by the server, before the restart";
  EXPECT_EQ(secretsOf(home_.requests().back()), all);
  EXPECT_EQ(harness_.filesLeft(), 0U);
  harness_.stop();
  ::umask(before);
  for (const std::string& line : lines.lines()) EXPECT_EQ(line.find("seCret"), std::string::npos) << line;
}

TEST_F(TransferOptionsTest, OldSecretsAreForgotten) {
  home_.serve("/file", file_, {{.stallAfter = half}});
  harness_.start();
  const int64_t id = harness_.fetchSome(home_.url("/file"), secretOptions())->taskIdentifier();
  harness_.stop();
  harness_.options.keepsOptions = std::chrono::seconds(0);
  harness_.start();
  EXPECT_EQ(harness_.listener->waitForEnd(id).file, video(1));
  EXPECT_EQ(secretsOf(home_.requests().back()), none);
  EXPECT_EQ(home_.requests().back().header("user-agent"), "own agent");
}

TEST_F(TransferOptionsTest, TheRateIsTheUsers) {
  home_.serve("/file", file_);
  harness_.start();
  const auto began = std::chrono::steady_clock::now();
  EXPECT_EQ(harness_.fetch(home_.url("/file"), {.bytesPerSecond = 300'000}).file, video(1));
  EXPECT_GT(std::chrono::steady_clock::now() - began, std::chrono::milliseconds(700));
}

// The server says nothing after the piece that waits for its time.
TEST_F(TransferOptionsTest, APieceThatHadToWaitAndCannotBeWrittenEndsTheTransfer) {
  home_.serve("/file", file_, {}, {.stallAfter = 1200});
  harness_.start();
  const auto task = harness_.session->downloadTask(home_.url("/file"), "", {.bytesPerSecond = 1024});
  harness_.files.arm({.call = 3, .errnum = ENOSPC, .lasting = true, .among = {FileOperation::write}});
  task->resume();
  EXPECT_EQ(harness_.listener->waitForEnd(task->taskIdentifier()).code(), ENOSPC);
}

TEST_F(TransferOptionsTest, RetriesAreTheUsers) {
  home_.serve("/busy", file_, {}, {.status = 503});
  harness_.start();
  EXPECT_EQ(harness_.fetch(home_.url("/busy"), {.retries = 0}).code(), 503);
  EXPECT_EQ(home_.requests().size(), 1U);
  EXPECT_EQ(harness_.fetch(home_.url("/busy"), {.retries = 7}).code(), 503);
  EXPECT_EQ(home_.requests().size(), 9U);
  EXPECT_THROW(harness_.session->downloadTask(home_.url("/file"), "", {.headers = {"Range: bytes=0-"}}), URLError);
}

}  // namespace
}  // namespace tarn::test
