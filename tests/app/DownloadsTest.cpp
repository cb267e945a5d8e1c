#include <algorithm>
#include <csignal>

#include "app/CommandTest.h"
#include "app/FailureReport.h"

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
  std::string listed() { return runTarn(home_, {"downloads"}).output; }
  /// The one row there is, as JSON.
  std::string row() {
    const auto result = runTarn(home_, {"downloads", "--json"});
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_EQ(std::ranges::count(result.output, '\n'), 1) << result.output;
    return result.output;
  }
  std::string id() {
    const std::string text = row();
    const size_t start = text.find("\"id\":") + 5;
    return text.substr(start, text.find(',', start) - start);
  }
};

TEST_F(DownloadsTest, AFailedSaveIsRetriedFromTheHistoryUntilItSucceeds) {
  EXPECT_EQ(runTarn(home_, {"downloads"}).exitCode, 0) << "there need not be a home";
  EXPECT_FALSE(fs::exists(home_));
  auto asked = save("?part=private&token=letmein");
  asked.insert(asked.end(), {"--header", "X-Key: hush"});
  EXPECT_NE(runTarn(home_, asked).exitCode, 0);
  const std::string failed = row();
  EXPECT_THAT(failed, HasSubstr("\"state\":\"failed\""));
  EXPECT_THAT(failed, HasSubstr("HTTP status 404"));
  EXPECT_THAT(failed, HasSubstr("\"url\":\"" + server_.url("/clip.mp4") + "\""));
  EXPECT_THAT(listed(), HasSubstr("HTTP status 404"));
  for (const char* secret : {"private", "letmein", "hush"}) EXPECT_THAT(failed + listed(), Not(HasSubstr(secret)));
  for (const char* secret : {"letmein", "hush"}) {
    EXPECT_THAT(contentOf(home_ / "log/tarn.log"), Not(HasSubstr(secret)));
    EXPECT_THAT(contentOf(home_ / "history.sqlite"), HasSubstr(secret));
  }

  EXPECT_NE(runTarn(home_, {"retry", id()}).exitCode, 0);
  EXPECT_THAT(row(), HasSubstr("\"state\":\"failed\"")) << "a retry takes the place of the row";

  server_.serve("/clip.mp4?part=private&token=letmein", ServedFile::of(recording()));
  const std::string whole = id();
  const auto retried = runTarn(home_, {"retry", whole.substr(whole.size() - 4)});
  EXPECT_EQ(retried.exitCode, 0) << retried.errors;
  EXPECT_EQ(retried.lastLine(), (home_ / "Photos/Trips/clip.mp4").string());
  const std::string saved = row();
  EXPECT_THAT(saved, HasSubstr("\"state\":\"saved\""));
  EXPECT_THAT(saved, HasSubstr("\"size\":" + std::to_string(recording().size())));
  EXPECT_EQ(server_.requests().back().header("x-key"), "hush");
  for (const char* secret : {"letmein", "hush"}) {
    EXPECT_THAT(contentOf(home_ / "history.sqlite"), Not(HasSubstr(secret)));
  }
  EXPECT_EQ(leftIn(home_), "");

  const auto again = runTarn(home_, {"retry", id()});
  EXPECT_EQ(again.exitCode, 1);
  EXPECT_THAT(again.errors, HasSubstr("was saved"));
  EXPECT_EQ(runTarn(home_, {"downloads", "--clear"}).exitCode, 0);
  EXPECT_THAT(listed(), HasSubstr("no downloads"));
  EXPECT_EQ(savedFiles(home_).size(), 1U);
}

TEST_F(DownloadsTest, ARetryAsItCameLeavesTheRepairOut) {
  EXPECT_NE(runTarn(home_, save()).exitCode, 0);
  server_.serve("/clip.mp4", ServedFile::of(recording()));
  EXPECT_EQ(runTarn(home_, {"retry", id(), "--as-it-came"}).exitCode, 0);
  EXPECT_EQ(contentOf(home_ / "Photos/Trips/clip.mp4"), textOf(recording()));
}

TEST_F(DownloadsTest, AKillForgetsNothing) {
  startHeldSave()->signal(SIGKILL);
  const size_t asked = server_.requests().size();
  EXPECT_TRUE(eventually([&] { return listed().find("nobody works on it") != std::string::npos; })) << listed();
  EXPECT_THAT(row(), HasSubstr("\"state\":\"pending\""));
  EXPECT_EQ(server_.requests().size(), asked) << "a command that only reads begins nothing";
  EXPECT_EQ(runTarn(home_, {"resume"}).exitCode, 0);
  EXPECT_THAT(row(), HasSubstr("\"state\":\"saved\""));
}

TEST_F(DownloadsTest, AResumeThatFailsNamesTheVideoAndSaysWhatToDo) {
  startHeldSave()->signal(SIGKILL);
  server_.serve("/clip.mp4", ServedFile::of(recording()), {}, {.status = 410});
  const auto result = run({"resume"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.errors, HasSubstr("tarn: clip.mp4 from " + server_.url("/clip.mp4") + " was not saved: "));
  EXPECT_THAT(result.errors, HasSubstr("Check the address"));
}

TEST_F(DownloadsTest, WhatAKilledEngineHasLostHasFailedOnceTheStoresAreRead) {
  {
    auto tarn = startHeldSave();
    tarn->signal(SIGKILL);
    tarn->wait();
  }
  const Path records = home_ / "Defaults/com.sorrel.capacitor.downloader.processingStates";
  fs::remove_all(home_ / "Transfers");
  fs::remove_all(home_ / "Defaults");
  fs::create_directories(records);  // no file
  runTarn(home_, {"resume"});
  EXPECT_THAT(row(), HasSubstr("\"state\":\"pending\"")) << "nobody can tell";
  fs::remove_all(home_ / "Defaults");
  runTarn(home_, {"resume"});
  EXPECT_THAT(row(), HasSubstr("the engine ended before the download did"));
  EXPECT_EQ(runTarn(home_, {"retry", id()}).exitCode, 0);
  EXPECT_EQ(savedFiles(home_).size(), 1U);
}

TEST_F(DownloadsTest, ADownloadOfAnotherProcessIsPausedAndGoesOn) {
  const auto tarn = startHeldSave();
  EXPECT_EQ(runTarn(home_, {"pause", id()}).exitCode, 0);
  EXPECT_THAT(listed(), HasSubstr("paused at"));
  EXPECT_EQ(runTarn(home_, {"retry", id()}).exitCode, 1) << "it has not ended";
  EXPECT_THAT(runTarn(home_, {"resume"}).errors, HasSubstr("is paused")) << "and is not waited for";
  EXPECT_EQ(runTarn(home_, {"cancel", "12345678"}).exitCode, 1) << "there is none";
  EXPECT_EQ(runTarn(home_, {"resume", id()}).exitCode, 0);
  EXPECT_EQ(tarn->wait(), 0) << tarn->errors();
  EXPECT_THAT(row(), HasSubstr("\"state\":\"saved\""));
}

TEST_F(DownloadsTest, ACancelledOneIsToldAsCancelledAndMayBeTriedAgain) {
  const auto tarn = startHeldSave();
  EXPECT_EQ(runTarn(home_, {"cancel", id()}).exitCode, 0);
  EXPECT_NE(tarn->wait(), 0);
  EXPECT_THAT(row(), HasSubstr("\"state\":\"cancelled\""));
  EXPECT_EQ(runTarn(home_, {"retry", id()}).exitCode, 0);
  EXPECT_THAT(row(), HasSubstr("\"state\":\"saved\""));
  EXPECT_EQ(leftIn(home_), "");
}

TEST_F(DownloadsTest, ARefusalStaysOneWhenTheEngineThatRefusedIsGone) {
  const std::string page = "<!DOCTYPE html><html><body>Log in first</body></html>";
  server_.serve("/clip.mp4", ServedFile::of({page.begin(), page.end()}));
  EXPECT_EQ(runTarn(home_, save()).exitCode, ExitCode::refused);
  EXPECT_THAT(row(), HasSubstr("\"refused\":true"));
  Engine engine({.home = home_});
  engine.open();
  EXPECT_EQ(exitCodeOf(outcomeOf(engine, std::stoll(id()))), ExitCode::refused);
}

TEST_F(DownloadsTest, ADamagedHistoryStopsNoCommandAndIsTold) {
  server_.serve("/clip.mp4", ServedFile::of(recording()));
  fs::create_directory(home_);
  std::ofstream(home_ / "history.sqlite") << std::string(5000, 'x');
  const auto unread = runTarn(home_, {"downloads"});
  EXPECT_EQ(unread.exitCode, 1);
  EXPECT_THAT(unread.errors, HasSubstr("puts it aside"));
  const auto result = runTarn(home_, save());
  EXPECT_EQ(result.exitCode, 0) << result.errors;
  EXPECT_THAT(result.errors, HasSubstr("put aside as " + (home_ / "history.sqlite.damaged").string()));
  EXPECT_THAT(row(), HasSubstr("\"state\":\"saved\""));
  EXPECT_EQ(runTarn(home_, {"resume"}).exitCode, 0);
}

}  // namespace
}  // namespace tarn::test
