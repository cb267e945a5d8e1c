#include <algorithm>
#include <csignal>

#include "app/CommandTest.h"
#include "app/FailureReport.h"
#include "support/RawHTTP.h"

// What the history of a home tells, and what can be done from it.

namespace tarn::test {
namespace {

class DownloadsTest : public CommandTest {
 protected:
  std::vector<std::string> save(const std::string& query = "") const {
    return {"save", server_.url("/clip.mp4" + query), "--album", "Trips"};
  }
  /// A save whose transfer is held in its middle.
  Child startHeldSave() {
    server_.serve("/clip.mp4", ServedFile::of(recording()), {{.stallAfter = 1000}});
    const size_t before = server_.requests().size();
    auto tarn = start(save());
    EXPECT_TRUE(eventually([&] { return server_.requests().size() > before; }));
    EXPECT_TRUE(eventually([&] { return listed().find("1.0 KB") != std::string::npos; })) << listed();
    return tarn;
  }
  std::string listed() { return run({"downloads"}).output; }
  /// The one row there is, as JSON.
  std::string row() {
    const auto result = expect(0, {"downloads", "--json"});
    EXPECT_EQ(std::ranges::count(result.output, '\n'), 1) << result.output;
    return result.output;
  }
  std::string id() { return between(row(), "\"id\":", ","); }
  void expectState(const std::string& state) { EXPECT_EQ(between(row(), "\"state\":\"", "\""), state); }
};

TEST_F(DownloadsTest, AFailedSaveIsRetriedFromTheHistoryUntilItSucceeds) {
  expect(0, {"downloads"});
  EXPECT_FALSE(fs::exists(home_)) << "there need not be a home";
  auto asked = save("?part=private&token=letmein");
  asked.insert(asked.end(), {"--header", "X-Key: hush"});
  expect(1, asked);
  expectState("failed");
  EXPECT_EQ(between(row(), "\"url\":\"", "\""), server_.url("/clip.mp4"));
  EXPECT_THAT(listed(), HasSubstr("HTTP status 404"));
  for (const char* secret : {"private", "letmein", "hush"}) EXPECT_THAT(row() + listed(), Not(HasSubstr(secret)));

  expect(1, {"retry", id()});
  expectState("failed");  // a retry takes the place of the row

  server_.serve("/clip.mp4?part=private&token=letmein", ServedFile::of(recording()));
  const std::string whole = id();
  const auto retried = expect(0, {"retry", whole.substr(whole.size() - 4)});
  EXPECT_EQ(retried.lastLine(), (home_ / "Photos/Trips/clip.mp4").string());
  expectState("saved");
  EXPECT_THAT(row(), HasSubstr("\"size\":" + std::to_string(recording().size())));
  EXPECT_EQ(server_.requests().back().header("x-key"), "hush");
  EXPECT_EQ(leftIn(home_), "");

  expect(1, {"retry", id()}, "was saved");
  expect(0, {"downloads", "--clear"});
  EXPECT_THAT(listed(), HasSubstr("no downloads"));
  EXPECT_EQ(savedFiles(home_).size(), 1U);
}

TEST_F(DownloadsTest, AKillForgetsNothing) {
  startHeldSave()->signal(SIGKILL);
  const size_t asked = server_.requests().size();
  EXPECT_TRUE(eventually([&] { return listed().find("nobody works on it") != std::string::npos; })) << listed();
  expectState("pending");
  EXPECT_EQ(server_.requests().size(), asked) << "a command that only reads begins nothing";
  expect(0, {"resume"});
  expectState("saved");
}

TEST_F(DownloadsTest, AResumeThatFailsNamesTheVideoAndSaysWhatToDo) {
  startHeldSave()->signal(SIGKILL);
  server_.serve("/clip.mp4", ServedFile::of(recording()), {}, {.status = 410});
  const auto result = expect(1, {"resume"}, "Check the address");
  EXPECT_THAT(result.errors, HasSubstr("tarn: clip.mp4 from " + server_.url("/clip.mp4") + " was not saved: "));
}

TEST_F(DownloadsTest, WhatAKilledEngineHasLostHasFailedOnceTheStoresAreRead) {
  {
    const auto tarn = startHeldSave();
    tarn->signal(SIGKILL);
    tarn->wait();
  }
  const Path records = home_ / "Defaults/com.sorrel.capacitor.downloader.processingStates";
  fs::remove_all(home_ / "Transfers");
  fs::remove_all(home_ / "Defaults");
  fs::create_directories(records);  // no file
  run({"resume"});
  expectState("pending");  // nobody can tell
  fs::remove_all(home_ / "Defaults");
  run({"resume"});
  EXPECT_THAT(row(), HasSubstr("the engine ended before the download did"));
  expect(0, {"retry", id()});
  EXPECT_EQ(savedFiles(home_).size(), 1U);
}

TEST_F(DownloadsTest, ADownloadOfAnotherProcessIsPausedAndGoesOn) {
  const auto tarn = startHeldSave();
  expect(0, {"pause", id()});
  EXPECT_THAT(listed(), HasSubstr("paused at"));
  expect(1, {"retry", id()});  // it has not ended
  EXPECT_THAT(run({"resume"}).errors, HasSubstr("is paused")) << "and is not waited for";
  expect(1, {"cancel", "12345678"});
  expect(0, {"resume", id()});
  EXPECT_EQ(tarn->wait(), 0) << tarn->errors();
  expectState("saved");
}

TEST_F(DownloadsTest, ACancelledOneIsToldAsCancelledAndMayBeTriedAgainWithoutTheRepair) {
  const auto tarn = startHeldSave();
  expect(0, {"cancel", id()});
  EXPECT_NE(tarn->wait(), 0);
  expectState("cancelled");
  expect(0, {"retry", id(), "--as-it-came"});
  expectState("saved");
  EXPECT_EQ(contentOf(home_ / "Photos/Trips/clip.mp4"), textOf(recording()));
  EXPECT_EQ(leftIn(home_), "");
}

TEST_F(DownloadsTest, ARefusalStaysOneWhenTheEngineThatRefusedIsGone) {
  server_.serve("/clip.mp4", ServedFile::of(Bytes(100)));
  expect(ExitCode::refused, save());
  EXPECT_THAT(row(), HasSubstr("\"refused\":true"));
  Engine engine({.home = home_});
  engine.open();
  EXPECT_EQ(exitCodeOf(outcomeOf(engine, std::stoll(id()))), ExitCode::refused);
}

TEST_F(DownloadsTest, ADamagedHistoryStopsNoCommandAndIsTold) {
  server_.serve("/clip.mp4", ServedFile::of(recording()));
  put(home_ / "history.sqlite", std::string(5000, 'x'));
  expect(1, {"downloads"}, "puts it aside");
  expect(0, save(), "put aside as " + (home_ / "history.sqlite.damaged").string());
  expectState("saved");
  expect(0, {"resume"});
}

}  // namespace
}  // namespace tarn::test
