#include <gmock/gmock.h>
#include <tarn/engine.h>
#include <tarn/inspect.h>
#include <tarn/repair.h>
#include <tarn/version.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "support/FaultServer.h"
#include "support/MediaMaker.h"
#include "support/TarnProcess.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;
using Kind = RepairReport::Kind;

/// Two seconds whose tag and sound a repair changes.
fs::path recording() {
  return madeByFFmpeg(
      words("-f lavfi -i testsrc2=size=192x144:rate=25:duration=2 -f lavfi -i sine=duration=2 "
            "-c:v libx264 -bsf:v dump_extra -tag:v avc3 -c:a ac3"));
}

size_t entriesOf(const fs::path& folder) {
  return static_cast<size_t>(std::distance(fs::directory_iterator(folder), fs::directory_iterator()));
}

TEST(ApiTest, AnInspectionIsAValue) {
  const FileInspection before = inspectFile(recording());
  EXPECT_EQ(before.verdict, FileInspection::Verdict::repairable);
  EXPECT_TRUE(before.changesFile);
  ASSERT_EQ(before.tracks.size(), 2U);
  EXPECT_EQ(before.tracks[0].codec, "avc3");
  EXPECT_EQ(before.tracks[0].width, 192);
  EXPECT_EQ(before.tracks[0].samples, 50U);
  EXPECT_EQ(before.tracks[1].handler, "soun");
  EXPECT_TRUE(std::ranges::all_of(before.problems, &FileInspection::Problem::isMended));
  EXPECT_THAT(before.text, testing::StartsWith(before.verdictText));
  EXPECT_THROW(inspectFile("/nowhere"), Error);
}

TEST(ApiTest, RepairsRunOnSeveralThreadsAndEachHearsItsOwnProgress) {
  const TempDirectory place;
  EXPECT_EQ(repairFile(recording(), place / "alone.mp4").kind, Kind::repaired);
  const std::string expected = contentOf(place / "alone.mp4");
  EXPECT_EQ(inspectFile(place / "alone.mp4").verdict, FileInspection::Verdict::nothingToRepair);

  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&, out = place / (std::to_string(i) + ".mp4")] {
      std::set<std::thread::id> told;
      const auto report = repairFile(recording(), out, {}, [&](std::string_view, double done) {
        EXPECT_TRUE(done >= 0 && done <= 1) << done;
        told.insert(std::this_thread::get_id());
      });
      EXPECT_EQ(report.kind, Kind::repaired) << report.failure;
      EXPECT_EQ(report.output, out);
      EXPECT_THAT(told, ElementsAre(std::this_thread::get_id()));
      EXPECT_EQ(contentOf(out), expected);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(entriesOf(place.path()), 4U);
}

TEST(ApiTest, ARepairThatIsCancelledOrCannotBeginWritesNothing) {
  const TempDirectory place;
  std::stop_source cancel;
  const auto stop = [&](std::string_view, double) { cancel.request_stop(); };
  EXPECT_EQ(repairFile(recording(), place / "out.mp4", {}, stop, cancel.get_token()).kind, Kind::cancelled);
  EXPECT_EQ(repairFile(recording(), place / "out.mp4", {}, {}, cancel.get_token()).kind, Kind::cancelled);
  const std::pair<fs::path, fs::path> rows[] = {{"/nowhere", place / "out.mp4"},
                                                {"", place / "out.mp4"},
                                                {recording(), ""},
                                                {recording(), place / "no folder/out.mp4"},
                                                {recording(), place.path()}};
  for (const auto& [in, out] : rows) EXPECT_THROW(repairFile(in, out), Error) << in << out;
  EXPECT_THROW(repairFile(recording(), place / "out.mp4", {.like = ""}), Error);
  EXPECT_EQ(entriesOf(place.path()), 0U);
}

/// That of an engine comes before where else the log goes, however they are made.
TEST(ApiTest, TheLogIsDroppedUntilSomebodyAsksForItAndAnEngineKeepsItInItsHome) {
  EXPECT_STREQ(version(), TARN_VERSION_STRING);
  const TempDirectory place;
  size_t lines = 0;
  const auto inHome = [&](const char* home) { return contentOf(place / home / "log/tarn.log").size(); };
  const auto work = [&] { repairFile(recording(), place / "out.mp4"); };
  const auto opened = [&](const char* home) {
    auto engine = std::make_unique<Engine>(EngineOptions{.home = place / home});
    engine->open();
    return engine;
  };
  testing::internal::CaptureStdout();
  work();
  auto first = opened("first"), second = opened("second");
  setLog([&](std::string_view) { ++lines; });
  const size_t before = inHome("second");
  work();
  EXPECT_GT(inHome("second"), before);
  first.reset();
  const size_t ofFirst = inHome("first"), ofSecond = inHome("second");
  work();
  EXPECT_GT(inHome("second"), ofSecond);
  EXPECT_EQ(lines, 0U);
  second.reset();
  work();
  EXPECT_GT(lines, 0U);
  EXPECT_EQ(inHome("first"), ofFirst);
  setLog({});
  const size_t all = lines;
  work();
  EXPECT_EQ(lines, all);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(ApiTest, AnEngineSavesAVideoThatAsksForHeadersAndWasPausedOverARestart) {
  const TempDirectory place;
  FaultServer server;
  const std::string recorded = contentOf(recording());
  server.serve("/my%20clip", ServedFile::of({recorded.begin(), recorded.end()}), {{.stallAfter = 1000}},
               {.disposition = "attachment; filename*=UTF-8''M%C3%A4rz.mov"});
  int64_t id = 0;
  {
    Engine engine({.home = place / "home"});
    engine.open();
    SaveRequest request{.url = server.url("/my clip"), .album = "Trips"};
    EXPECT_THROW(engine.save({.url = "ftp://127.0.0.1/x", .album = "Trips"}), EngineRefused);
    request.transfer.headers = {"X-Key: a\r\nX-Other: b"};
    EXPECT_THROW(engine.save(request), EngineRefused);
    request.transfer.headers = {"X-Key: seCret"};
    request.transfer.cookies = "127.0.0.1\tFALSE\t/\tFALSE\t0\tsid\tseCret2\nh.org\tFALSE\t/\tFALSE\t0\tsid\tother";
    id = engine.save(request);
    while (engine.transfers()[id].received < 1000) engine.nextEvent(std::chrono::milliseconds(5));
    EXPECT_EQ(engine.transfers()[id].expected, recorded.size());
    engine.pause(id);
    EXPECT_THROW(engine.pause(id + 1), EngineRefused);
    EXPECT_FALSE(engine.storedWork().hasTransfers) << "nothing goes on by itself";
  }
  std::vector<std::string> warnings;
  {
    Engine engine({.home = place / "home", .warn = [&](const std::string& words) { warnings.push_back(words); }});
    engine.open();
    EXPECT_TRUE(engine.transfers()[id].isPaused);
    EXPECT_EQ(engine.transfers()[id].received, 1000U);
    EXPECT_EQ(engine.downloads().at(0).status, "STATUS_RUNNING");
    engine.resume(id);
    EXPECT_THROW(engine.resume(id), EngineRefused);
    while (const auto event = engine.nextEvent()) {
      if (event->name == "downloadComplete") break;
    }
    engine.waitUntilGone(id);
    EXPECT_THAT(engine.downloads(), IsEmpty());
    const auto outcome = engine.outcome(id);
    ASSERT_TRUE(outcome.assetId) << outcome.failure.value_or("");
    const fs::path saved = place / "home/Photos/Trips/M\xC3\xA4rz.mov";
    EXPECT_EQ(engine.assetPath(*outcome.assetId, "Trips"), saved);
    EXPECT_EQ(inspectFile(saved).verdict, FileInspection::Verdict::nothingToRepair);
    EXPECT_FALSE(engine.call("getActiveDownloads", "no JSON").isResolved);
    EXPECT_TRUE(engine.call("getActiveDownloads").isResolved);

    std::thread other([&] { EXPECT_TRUE(engine.interrupt()); });
    EXPECT_FALSE(engine.nextEvent());
    other.join();
    EXPECT_TRUE(engine.isInterrupted());
  }
  ASSERT_EQ(server.requests().size(), 2U);
  EXPECT_EQ(server.requests()[1].header("range"), "bytes=488-");
  EXPECT_EQ(server.requests()[1].header("x-key"), "seCret");
  EXPECT_EQ(server.requests()[1].header("cookie"), "sid=seCret2");
  EXPECT_EQ(contentOf(place / "home/log/tarn.log").find("seCret"), std::string::npos);
  EXPECT_THAT(warnings, IsEmpty());
  EXPECT_EQ(leftIn(place / "home"), "");
}

TEST(ApiTest, AHomeThatCannotBeMadeIsToldAsAnError) {
  const TempDirectory place;
  std::ofstream(place / "file") << "in the way";
  fs::create_directory(place / "home");
  std::ofstream(place / "home/log") << "in the way";
  EXPECT_THROW(Engine({.home = ""}), Error);
  for (const char* home : {"file", "file/home", "home"}) {
    Engine engine({.home = place / home});
    EXPECT_THROW(engine.open(), Error) << home;
  }
}

}  // namespace
}  // namespace tarn::test
