#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "app/EngineClient.h"
#include "app/FileNames.h"
#include "app/Host.h"
#include "app/Payload.h"
#include "app/RunJournal.h"
#include "app/TarnProcess.h"
#include "platform/host/PosixFileManager.h"
#include "support/FaultServer.h"
#include "support/FaultyFileManager.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

/// Waits for the end of a download; its status.
std::string endOf(EngineClient& client, int64_t id) {
  while (auto event = client.nextEvent(std::chrono::seconds(20))) {
    if (event->name == "downloadComplete" && valueAt<int64_t>(event->data, "id", 0) == id) {
      return *valueAt<std::string>(event->data, "status");
    }
  }
  return "nothing";
}

TEST(HostTest, TwelveSavesAtOnceUseThreeSlotsAndAreAllSaved) {
  TempDirectory place;
  PosixFileManager files(place.path());
  FaultServer server;
  std::set<int64_t> ids;
  int64_t mostActive = 0;
  {
    Host host(files, {.home = place.path()});
    EngineClient client(host.plugin());
    host.start();
    for (int i = 0; i < 12; ++i) {
      const std::string name = "clip" + std::to_string(i) + ".mp4";
      server.serve("/" + name, ServedFile::of(Bytes(100'000, static_cast<uint8_t>(i))), {},
                   {.bytesPerSecond = 1'000'000});
      auto answer = client.call("saveVideo", {{"url", server.url("/" + name)}, {"album", "Many"}, {"filename", name}});
      ids.insert(valueAt<int64_t>(answer.data, "id", 0));
    }
    for (JSObject tasks; tasks = client.call("getActiveDownloads").data, !tasks.empty();) {
      mostActive = std::max(mostActive, std::ranges::count_if(tasks.members(), [](const JSObject::Member& task) {
                              const auto status = valueAt<std::string>(*task.second.get<JSObject>(), "status", "");
                              return status == "STATUS_RUNNING" || status == "STATUS_PROCESSING";
                            }));
      client.nextEvent(std::chrono::milliseconds(20));
    }
  }
  EXPECT_EQ(ids.size(), 12U) << "ids of one second differ";
  EXPECT_EQ(mostActive, 3);
  EXPECT_EQ(savedFiles(place.path()).size(), 12U);
  EXPECT_EQ(leftIn(place.path()), "");
}

/// A disk that fills at each call, spread over three tests.
class FullDisk : public testing::TestWithParam<uint64_t> {};

TEST_P(FullDisk, LosesNothing) {
  FaultServer server;
  const std::string content(300'000, 'v');
  server.serve("/clip.mp4", ServedFile::of(Bytes(content.begin(), content.end())));
  size_t faults = 0;
  for (uint64_t call = 1 + GetParam();; call += 3) {
    SCOPED_TRACE("full at call " + std::to_string(call));
    TempDirectory place;
    PosixFileManager real(place.path());
    FaultyFileManager files(real);
    using enum FileOperation;
    bool isSaved = false;
    {
      Host host(files, {.home = place.path()});
      EngineClient client(host.plugin());
      host.start();
      files.arm({.call = call,
                 .errnum = ENOSPC,
                 .effect = Fault::Effect::half,
                 .among = {open, write, flush, createDirectory, copy, link, move, replace}});
      auto answer =
          client.call("saveVideo", {{"url", server.url("/clip.mp4")}, {"album", "Trips"}, {"filename", "clip.mp4"}});
      ASSERT_TRUE(answer.resolved) << answer.message;
      isSaved = endOf(client, valueAt<int64_t>(answer.data, "id", 0)) == "STATUS_SUCCESSFUL";
      if (!files.fired()) break;
      ++faults;
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

TEST(HostTest, TheJournalKeepsTheWordsOfEachDownload) {
  RunJournal journal;
  for (const char* line :
       {"Download completed with error 5 HTTP status 404", "Video saved successfully, asset ID: A-1",
        "Processing completed for download 6, status: completed", "ERROR saving to Photos: the disk is full",
        "Processing completed for download 7, status: failed",
        "Processing failed for download 8: moov box not found"}) {
    journal.read(line);
  }
  const char* const words[] = {"HTTP status 404", "none", "the disk is full", "moov box not found"};
  for (int id = 5; id <= 8; ++id) EXPECT_EQ(journal.failure(id).value_or("none"), words[id - 5]);
  EXPECT_EQ(journal.assetId(6), "A-1");
  EXPECT_FALSE(journal.assetId(7));
}

}  // namespace
}  // namespace tarn::test
