#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <regex>

#include "app/CommandTest.h"
#include "support/FlashBeep.h"
#include "support/NumberFrom.h"
#include "support/ProbedMovie.h"

namespace tarn::test {
namespace {

class SaveTest : public CommandTest {
 protected:
  TarnResult save() { return runTarn(home_, saveArguments_); }

  void expectSavedOnce() {
    ASSERT_EQ(savedFiles(home_), std::vector<std::string>{"Trips/clip.mp4"});
    EXPECT_EQ(assetFiles(home_), 1U);
    EXPECT_EQ(leftIn(home_), "");
  }

  const Path saved_ = home_ / "Photos/Trips/clip.mp4";
  const std::vector<std::string> saveArguments_{"save", server_.url("/clip.mp4"), "--album", "Trips"};
};

TEST_F(SaveTest, TasksWithoutATransferAreNotWaitedFor) {
  put(home_ / "Defaults/ActiveDownloads",
      R"([{"id":1,"url":"u","status":"downloading"},{"id":2,"url":"u","status":"processing"},)"
      R"({"id":3,"url":"u","status":"stopped"}])");
  expect(1, {"resume"}, "Download 1 was not saved: its transfer is gone");
}

TEST_F(SaveTest, StoredWorkThatCannotBeReadIsKeptAndSaidSo) {
  put(home_ / "Documents/clip.mp4", recording());
  const Path records = home_ / "Defaults/com.sorrel.capacitor.downloader.processingStates";
  fs::create_directories(records);  // no file
  expect(1, {"resume"}, "The stored downloads cannot be read");
  fs::remove(records);
  put(records, R"([1,{"fileURL":"file://)" + home_.string() + R"(/Documents/clip.mp4"}])");
  expect(1, {"resume"}, "1 of the stored downloads cannot be understood");
  server_.serve("/clip.mp4", ServedFile::of(recording()));
  EXPECT_EQ(save().exitCode, 0);
  EXPECT_EQ(contentOf(home_ / "Documents/clip.mp4"), textOf(recording()));
  EXPECT_TRUE(fs::exists(saved_));
}

TEST_F(SaveTest, SecretsStayBetweenTheUserAndTheServer) {
  server_.serve("/clip.mp4?token=letmein", ServedFile::of(recording()));
  std::string url = server_.url("/clip.mp4?token=letmein");
  url.insert(url.find("127"), "user:secret@");
  const auto mode = [](const Path& path) { return static_cast<int>(fs::status(path).permissions()); };
  const Path open = place_ / "open";
  fs::create_directory(open);
  fs::permissions(open, fs::perms(0755));
  for (const Path& home : {open, place_ / "home"}) {
    home_ = home;
    const auto good = expect(0, {"save", url, "--album", "Trips"});
    const auto bad = expect(1, {"save", url + "&x=none", "--album", "Trips", "--verbose"});
    const std::string told = contentOf(home / "log/tarn.log") + good.errors + bad.errors;
    EXPECT_THAT(told, HasSubstr("//***@127"));
    for (const char* secret : {"user:", "secret", "letmein"}) EXPECT_THAT(told, Not(HasSubstr(secret)));
    EXPECT_EQ(mode(home / "log/tarn.log"), 0600);
  }
  EXPECT_EQ(mode(home_), 0700);
  EXPECT_EQ(mode(saved_), 0600);
  EXPECT_EQ(mode(open), 0755);
}

TEST_F(SaveTest, TheLogOfTheUsualHomeIsAmongTheStateOfPrograms) {
  std::ofstream(place_ / "file") << "no directory";
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {"XDG_DATA_HOME=@/a XDG_STATE_HOME=@/b", "", "b/tarn/tarn.log"},
      {"HOME=@/c", "", "c/.local/state/tarn/tarn.log"},
      {"HOME=@/d", "--home @/d/.local/share/tarn/", "d/.local/state/tarn/tarn.log"},
      {"HOME=@/e", "--home @/own", "own/log/tarn.log"},
      {"XDG_DATA_HOME=@/f XDG_STATE_HOME=@/file", "", "f/tarn/log/tarn.log"},  // where no state can be kept
  };
  for (const auto& [settings, home, log] : rows) {
    const std::string line = fmt::format("/usr/bin/env -i {} {} {} resume", settings, tarnCommand(home_, {})[0], home);
    const auto ended =
        CommandTest::ended(startOther(words(std::regex_replace(line, std::regex("@"), place_.path().string()))));
    EXPECT_EQ(ended.exitCode, 0) << settings << ended.errors;
    EXPECT_GT(contentOf(place_ / log).size(), 0U) << settings;
  }
}

/// One way through the pipeline, and how far apart the kills on it are.
struct Road {
  const char* name;
  size_t stride;
  Bytes (*recording)();
};

const Road roads[] = {
    {"Tag", 1, [] { return recording(); }},
    {"Remux", 3, [] { return damagedMovie("hev1 with late sound"); }},
    {"SeveralEntries", 3, [] { return damagedMovie("HEVC of two sizes"); }},
    {"Transcode", 4,
     [] {
       return contentsOf(damagedFlashBeepClip(4, 1, {"-bsf:a", "noise=drop='between(n,80,103)'"}));
     }},
    {"FastPath", 10,
     [] {
       return contentsOf(damagedFlashBeepClip(420, 2, {"-bsf:a", "setts=ts='if(gt(N,9844),TS+3200,TS)'"}));
     }},
};

/// 1 means a kill at every change.
size_t strideOf(const Road& road) {
  return std::max(1U, numberFrom("TARN_KILL_STRIDE", static_cast<uint32_t>(road.stride)));
}

/// A kill just before each change of the file system, or every few of them, and just after each store of a recipe; then
/// a resume, and if the kill came before the transfer was stored, a second save.
class KillSweep : public SaveTest, public testing::WithParamInterface<Road> {
 protected:
  /// Kills at the first change or recipe and at every `stride`th from there; returns how often.
  size_t sweep(const char* what, size_t stride) {
    size_t kills = 0;
    for (size_t number = 1; !HasFailure(); number += stride, ++kills) {
      SCOPED_TRACE(std::string("killed at ") + what + " " + std::to_string(number));
      fs::remove_all(home_);
      ChildProgram child({KILLED_SAVE_BINARY, home_.string(), server_.url("/clip.mp4"), what, std::to_string(number)},
                         place_.path());
      const int code = child.wait();
      if (code == 0) break;
      EXPECT_EQ(code, killedBySIGKILL) << child.errors();
      expectResumed();
    }
    return kills;
  }

  const Path undisturbed_ = place_ / "undisturbed.mp4";
  size_t differences_ = 0;

 private:
  void expectResumed() {
    auto resumed = runTarn(home_, {"resume"});
    ASSERT_EQ(resumed.exitCode, 0) << resumed.errors;
    if (savedFiles(home_).empty()) {
      // The transfer was not stored yet: nobody had been told that it exists.
      ASSERT_EQ(leftIn(home_), "");
      ASSERT_EQ(save().exitCode, 0);
    }
    expectSavedOnce();
    if (contentOf(saved_) == contentOf(undisturbed_)) return;
    // After a swap of the sound the edit lists may differ, and no sample does.
    EXPECT_EQ(mediaHashes(saved_), mediaHashes(undisturbed_));
    ++differences_;
  }
};

TEST_P(KillSweep, NothingIsLostWhereverTheProcessDies) {
  server_.serve("/clip.mp4", ServedFile::of(GetParam().recording()));
  ASSERT_EQ(save().exitCode, 0);
  fs::copy_file(saved_, undisturbed_);
  // 67 ms are a light gap in seven minutes, for which packets alone suffice; three silent ones come nearest.
  for (const Beat& beat : GetParam().name == std::string_view("FastPath") ? beats(saved_) : std::vector<Beat>()) {
    const double moved = beat.flash < 210.5 ? 0 : 3 * 1024 / 48000.0;
    EXPECT_TRUE(beat.flash < 1 || std::abs(beat.beepAfter - moved) < 0.002) << beat.flash << " " << beat.beepAfter;
  }
  const size_t stride = strideOf(GetParam());
  const size_t changes = sweep("change", stride);
  const size_t recipes = sweep("recipe", 1);
  if (HasFailure()) return;
  RecordProperty("kills", static_cast<int>(changes + recipes));
  std::cout << GetParam().name << ": " << changes << " kills, " << stride << " changes apart, and " << recipes
            << " at recipes; " << differences_ << " files with other edit lists\n";
  EXPECT_GE(changes, 10U);
  EXPECT_EQ(recipes > 0, GetParam().name != std::string_view("Tag")) << "a tag is changed in place";
  EXPECT_LE(differences_, changes / 4);
}

INSTANTIATE_TEST_SUITE_P(Changes, KillSweep, testing::ValuesIn(roads), [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace tarn::test
