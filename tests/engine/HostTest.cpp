#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "api/FileNames.h"
#include "api/InProcessClient.h"
#include "engine/Host.h"
#include "engine/Outcomes.h"
#include "platform/JSObject.h"
#include "platform/host/PosixFileManager.h"
#include "support/FaultServer.h"
#include "support/FaultyFileManager.h"
#include "support/TarnProcess.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

/// A file that the engine takes as it comes.
Bytes container(size_t size) {
  Bytes bytes(size, 'v');
  std::ranges::copy(std::string_view("OggS\0", 5), bytes.begin());
  return bytes;
}

TEST(HostTest, TwelveSavesAtOnceUseThreeSlotsAndAreAllSaved) {
  TempDirectory place;
  PosixFileManager files(place.path());
  FaultServer server;
  server.serve("/clip.mp4", ServedFile::of(container(100'000)), {}, {.bytesPerSecond = 1'000'000});
  int64_t mostActive = 0;
  {
    Host host(files, {.home = place.path()});
    InProcessClient client(host);
    host.start();
    for (int i = 0; i < 12; ++i) {
      const std::string name = "clip" + std::to_string(i) + ".mp4";
      client.call("saveVideo", {{"url", server.url("/clip.mp4")}, {"album", "Many"}, {"filename", name}});
    }
    for (JSObject tasks; tasks = client.call("getActiveDownloads").data, !tasks.empty();) {
      mostActive = std::max(mostActive, std::ranges::count_if(tasks.members(), [](const JSObject::Member& task) {
                              const auto status = valueAt<std::string>(*task.second.get<JSObject>(), "status", "");
                              return status == "STATUS_RUNNING" || status == "STATUS_PROCESSING";
                            }));
      client.nextEvent(std::chrono::milliseconds(20));
    }
  }
  EXPECT_EQ(mostActive, 3);
  EXPECT_NE(contentOf(place.path() / "log/tarn.log").find("App will terminate - performing final cleanup"),
            std::string::npos);
  EXPECT_EQ(savedFiles(place.path()).size(), 12U);
  EXPECT_EQ(leftIn(place.path()), "");
}

TEST(HostTest, OnlyTheHostChoosesTheIdOfADownload) {
  TempDirectory place;
  PosixFileManager files(place.path());
  Host host(files, {.home = place.path()});
  InProcessClient client(host);
  host.start();
  const auto idOf = [&](const std::string& plugin) {
    const JSObject options{{"id", 7}, {"url", "http://127.0.0.1:1/a.mp4"}, {"album", "Trips"}, {"filename", "a.mp4"}};
    return valueAt<int64_t>(client.call(plugin, "saveVideo", options).data, "id", 0);
  };
  EXPECT_GT(idOf("TarnBridge"), 1'000'000'000) << "a page gets the time";
  EXPECT_EQ(idOf("TarnHost"), 7);
}

/// A disk that fills at each call, spread over three tests.
class FullDisk : public testing::TestWithParam<uint64_t> {};

TEST_P(FullDisk, LosesNothing) {
  FaultServer server;
  const std::string content(textOf(container(300'000)));
  server.serve("/clip.mp4", ServedFile::of(container(300'000)));
  size_t faults = 0;
  for (uint64_t call = 1 + GetParam();; call += 3, ++faults) {
    SCOPED_TRACE("full at call " + std::to_string(call));
    TempDirectory place;
    PosixFileManager real(place.path());
    FaultyFileManager files(real);
    using enum FileOperation;
    bool isSaved = false;
    {
      Host host(files, {.home = place.path()});
      InProcessClient client(host);
      host.start();
      files.arm({.call = call,
                 .errnum = ENOSPC,
                 .effect = Fault::Effect::half,
                 .among = {open, write, flush, createDirectory, copy, link, move, replace}});
      auto answer =
          client.call("saveVideo", {{"url", server.url("/clip.mp4")}, {"album", "Trips"}, {"filename", "clip.mp4"}});
      ASSERT_TRUE(answer.resolved) << answer.message;
      std::optional<EngineClient::Event> end;
      while ((end = client.nextEvent(std::chrono::seconds(20))) && end->name != "downloadComplete") continue;
      isSaved = end && *valueAt<std::string>(end->data, "status") == "STATUS_SUCCESSFUL";
      const int64_t id = valueAt<int64_t>(answer.data, "id", 0);
      client.waitUntilGone(id);
      const auto outcome = host.outcomes().of(id);
      ASSERT_TRUE(outcome);
      EXPECT_EQ(outcome->kind, isSaved ? RunOutcome::Kind::saved : RunOutcome::Kind::failed);
      EXPECT_EQ(outcome->words.empty(), isSaved) << "a failure has its words";
      if (!files.fired()) break;
      files.disarm();
    }
    // The space is there again: what was not saved is saved by the next try, and nothing is there twice.
    runTarn(place.path(), {"resume"});
    if (!isSaved && savedFiles(place.path()).empty()) {
      auto again = runTarn(place.path(), {"save", server.url("/clip.mp4"), "--album", "Trips"});
      ASSERT_EQ(again.exitCode, 0) << again.errors;
    }
    ASSERT_EQ(savedFiles(place.path()).size(), 1U);
    EXPECT_EQ(contentOf(place.path() / "Photos" / savedFiles(place.path())[0]), content);
    EXPECT_TRUE(std::filesystem::is_empty(place.path() / "tmp"));
    EXPECT_TRUE(std::filesystem::is_empty(place.path() / "Transfers"));
  }
  EXPECT_GT(faults, 10U);
}

INSTANTIATE_TEST_SUITE_P(Calls, FullDisk, testing::Range<uint64_t>(0, 3));

TEST(HostTest, OfManyOutcomesTheNewestAreKeptAndTheOneThatCameLast) {
  Outcomes outcomes;
  const auto newest = static_cast<int64_t>(Outcomes::most) + 2;
  for (int64_t id = 2; id <= newest; ++id) outcomes.keep({.id = id});
  EXPECT_FALSE(outcomes.of(2));
  EXPECT_TRUE(outcomes.of(3));
  outcomes.keep({.id = 1});
  EXPECT_TRUE(outcomes.of(1));
  EXPECT_FALSE(outcomes.of(3));
  EXPECT_TRUE(outcomes.of(newest));
}

TEST(HostTest, DefaultNamesComeFromTheURL) {
  std::string umlauts, encoded;
  for (int i = 0; i < 98; ++i) umlauts += "\xC3\xA4";
  for (int i = 0; i < 150; ++i) encoded += "%C3%A4";
  const std::pair<std::string, std::string> rows[] = {{"/a/clip.MOV?x=1#y", "clip.MOV"},
                                                      {"/", "video.mp4"},
                                                      {"", "video.mp4"},
                                                      {"/%2e%2e", "video.mp4"},
                                                      {"/a%2Fb", "a_b.mp4"},
                                                      {"/.mp4", "mp4.mp4"},
                                                      {"/%ff%zz", "%ff%zz.mp4"},
                                                      {"/clip.txt", "clip.txt.mp4"},
                                                      {"/" + encoded, umlauts + ".mp4"}};
  for (const auto& [path, name] : rows) EXPECT_EQ(defaultFilename("http://h" + path), name) << path;
}

}  // namespace
}  // namespace tarn::test
