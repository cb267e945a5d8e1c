#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <thread>

#include "app/DamagedMovies.h"
#include "app/TarnProcess.h"
#include "mp4/MP4BoxUtils.h"
#include "platform/host/PosixFileManager.h"
#include "support/FaultServer.h"
#include "support/MediaMaker.h"
#include "support/TempDirectory.h"
#include "sync/FlashBeep.h"

namespace tarn::test {
namespace {

/// "avc3" with an `avcC` and without sound.
const Bytes& recording() {
  static const Bytes bytes = [] {
    PosixFileManager files{std::filesystem::temp_directory_path()};
    return readFile(files, madeByFFmpeg({"-f", "lavfi", "-i", "testsrc2=size=320x240:rate=30:duration=2", "-c:v",
                                         "libx264", "-pix_fmt", "yuv420p", "-tag:v", "avc3"}));
  }();
  return bytes;
}

/// The recording as it must come out.
std::string repaired() {
  std::string text(textOf(recording()));
  text.replace(text.find("avc3"), 4, "avc1");
  return text;
}

class SaveTest : public testing::Test {
 protected:
  TarnResult save(const std::string& path, std::vector<std::string> more = {}) {
    std::vector<std::string> arguments{"save", server_.url(path), "--album", "Trips"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return runTarn(home_, arguments);
  }

  void expectSavedOnce(const std::string& content) {
    ASSERT_EQ(savedFiles(home_), std::vector<std::string>{"Trips/clip.mp4"});
    EXPECT_EQ(contentOf(home_ / "Photos/Trips/clip.mp4"), content);
    EXPECT_EQ(assetFiles(home_), 1U);
    EXPECT_EQ(leftIn(home_), "");
  }

  uint64_t partialBytes() {
    uint64_t size = 0;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(home_ / "Transfers", ignored)) {
      if (entry.path().extension() == ".part") size += entry.file_size(ignored);
    }
    return size;
  }

  /// Waits until a transfer that has been slowed down is in its middle.
  void waitForPartialFile() {
    for (int i = 0; i < 1000 && partialBytes() < recording().size() / 4; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_GE(partialBytes(), recording().size() / 4);
    ASSERT_LT(partialBytes(), recording().size());
  }

  TempDirectory place_;
  Path home_ = place_.path() / "home";
  FaultServer server_;
};

TEST_F(SaveTest, RepairsTheTagAndNothingElse) {
  server_.serve("/clip.mp4", ServedFile::of(recording()));
  auto result = save("/clip.mp4");
  EXPECT_EQ(result.exitCode, 0) << result.errors;
  EXPECT_EQ(result.lastLine(), (home_ / "Photos/Trips/clip.mp4").string());
  expectSavedOnce(repaired());
  EXPECT_EQ(probeVideo(home_ / "Photos/Trips/clip.mp4", "codec_tag_string"), "avc1");
  EXPECT_EQ(decoderComplaints(home_ / "Photos/Trips/clip.mp4"), "");
  auto library = runTarn(home_, {"library", "--json"});
  EXPECT_NE(library.output.find(R"("album":"Trips")"), std::string::npos) << library.output;
}

TEST_F(SaveTest, AKillInMidDownloadLosesNothing) {
  server_.serve("/clip.mp4", ServedFile::of(recording()), {{.bytesPerSecond = recording().size() / 4}});
  ChildProgram tarn(tarnCommand(home_, {"save", server_.url("/clip.mp4"), "--album", "Trips"}), place_.path());
  waitForPartialFile();
  tarn.signal(SIGKILL);
  EXPECT_EQ(tarn.wait(), killedBySIGKILL);
  auto result = runTarn(home_, {"resume"});
  EXPECT_EQ(result.exitCode, 0) << result.errors;
  EXPECT_EQ(result.lastLine(), (home_ / "Photos/Trips/clip.mp4").string());
  expectSavedOnce(repaired());
  auto requests = server_.requests();
  ASSERT_EQ(requests.size(), 2U);
  EXPECT_TRUE(requests[1].header("range").starts_with("bytes=")) << requests[1].header("range");
  EXPECT_EQ(requests[1].header("if-range"), "\"v1\"");
}

TEST_F(SaveTest, ATransferIsNeverSplicedFromTwoVersions) {
  const auto first = ServedFile::of(recording());
  const auto second = ServedFile::of(Bytes(recording().rbegin(), recording().rend())).withETag("\"v2\"");
  const Reply ignoresIfRange{.file = second, .ignoresIfRange = true};
  for (const Reply& afterTheKill :
       {Reply{.file = second}, ignoresIfRange, Reply{.file = second, .ignoresRange = true}}) {
    std::filesystem::remove_all(home_);
    server_.serve("/clip.mp4", first, {{.bytesPerSecond = recording().size() / 4}, afterTheKill}, {.file = second});
    ChildProgram tarn(tarnCommand(home_, {"save", server_.url("/clip.mp4"), "--album", "Trips"}), place_.path());
    waitForPartialFile();
    tarn.signal(SIGKILL);
    tarn.wait();
    EXPECT_EQ(runTarn(home_, {"resume"}).exitCode, 0);
    expectSavedOnce(std::string(recording().rbegin(), recording().rend()));
  }
}

TEST_F(SaveTest, AnInterruptKeepsTheTransferAndLeavesWith130) {
  server_.serve("/clip.mp4", ServedFile::of(recording()), {{.bytesPerSecond = recording().size() / 4}});
  for (int number : {SIGTERM, SIGINT}) {
    std::filesystem::remove_all(home_);
    server_.serve("/clip.mp4", ServedFile::of(recording()), {{.bytesPerSecond = recording().size() / 4}});
    ChildProgram tarn(tarnCommand(home_, {"save", server_.url("/clip.mp4"), "--album", "Trips"}), place_.path());
    waitForPartialFile();
    auto second = save("/clip.mp4");
    EXPECT_EQ(second.exitCode, 1);
    EXPECT_NE(second.errors.find("Another tarn works in"), std::string::npos) << second.errors;
    tarn.signal(number);
    EXPECT_EQ(tarn.wait(), 130) << tarn.errors();
    EXPECT_EQ(runTarn(home_, {"resume"}).exitCode, 0);
    expectSavedOnce(repaired());
  }
}

TEST_F(SaveTest, AServersFaultsEndInAWholeFileOrAClearFailure) {
  struct Row {
    const char* name;
    std::vector<Reply> replies;
    Reply afterwards;
    bool isSaved;
    const char* words;
  };
  const Reply cut{.closeAfter = 1000};
  const Row rows[] = {
      {"404", {}, {.status = 404}, false, "404"},
      {"500 once", {{.status = 500}}, {}, true, ""},
      {"cut once", {cut}, {}, true, ""},
      {"no length", {}, {.omitsLength = true}, true, ""},
      {"redirect to a file", {}, {.status = 302, .location = "file:///etc/passwd"}, false, ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::filesystem::remove_all(home_);
    server_.serve("/clip.mp4", ServedFile::of(recording()), row.replies, row.afterwards);
    auto result = save("/clip.mp4");
    EXPECT_EQ(result.exitCode, row.isSaved ? 0 : 1) << result.errors;
    if (row.isSaved) {
      expectSavedOnce(repaired());
    } else {
      EXPECT_NE(result.errors.find("The video was not saved"), std::string::npos) << result.errors;
      EXPECT_NE(result.errors.find(row.words), std::string::npos) << result.errors;
      EXPECT_TRUE(savedFiles(home_).empty());
      EXPECT_EQ(leftIn(home_), "");
    }
  }
  const std::string page = "<html>not a video</html>";
  server_.serve("/clip.mp4", ServedFile::of(Bytes(page.begin(), page.end())));
  std::filesystem::remove_all(home_);
  EXPECT_EQ(save("/clip.mp4").exitCode, 0) << "a codec that cannot be detected is no failure";
  expectSavedOnce(page);
}

TEST_F(SaveTest, NamesAndAlbumsAreSafe) {
  const std::string encoded = "/%F0%9F%8E%AC%20day%0A1";
  server_.serve(encoded, ServedFile::of(recording()));
  struct Row {
    std::vector<std::string> arguments;
    int exitCode;
    std::string saved;
  };
  const Row rows[] = {
      {{"--album", "Trips"}, 0, "Trips/🎬 day_1.mp4"},
      {{"--album", "Trips", "--filename", "../x"}, 1, ""},
      {{"--album", "Trips", "--filename", "/etc/x"}, 1, ""},
      {{"--album", "Trips", "--filename", ""}, 1, ""},
      {{"--album", "Trips", "--filename", std::string(300, 'n')}, 1, ""},
      {{"--album", "", "--filename", "clip.mp4"}, 1, ""},
      {{"--album", "🎄", "--filename", "clip.mp4"}, 0, "🎄/clip.mp4"},
  };
  for (const Row& row : rows) {
    std::filesystem::remove_all(home_);
    std::vector<std::string> arguments{"save", server_.url(encoded)};
    arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());
    auto result = runTarn(home_, arguments);
    EXPECT_EQ(result.exitCode, row.exitCode) << row.arguments.back() << ": " << result.errors;
    EXPECT_EQ(savedFiles(home_), row.saved.empty() ? std::vector<std::string>{} : std::vector{row.saved});
    EXPECT_EQ(leftIn(home_), "") << row.arguments.back();
  }
  std::filesystem::remove_all(home_);
  auto slash = runTarn(home_, {"save", server_.url(encoded), "--album", "a/../../b", "--filename", "clip.mp4"});
  EXPECT_EQ(slash.exitCode, 0) << slash.errors;
  ASSERT_EQ(savedFiles(home_).size(), 1U);
  EXPECT_EQ(std::ranges::count(savedFiles(home_)[0], '/'), 1) << savedFiles(home_)[0];
}

TEST_F(SaveTest, DamagedStoresAndMissingDirectoriesStopNobody) {
  server_.serve("/clip.mp4", ServedFile::of(recording()));
  std::filesystem::create_directories(home_ / "Defaults");
  PosixFileManager files(home_);
  for (const char* key :
       {"ActiveDownloads", "MaxConcurrentDownloads", "com.sorrel.capacitor.downloader.processingStates"}) {
    writeFileAtomically(files, home_ / "Defaults" / key, bytesOf("[7,{\"stage\":\"stopped\"}"));
  }
  EXPECT_EQ(save("/clip.mp4").exitCode, 0);
  expectSavedOnce(repaired());
  std::filesystem::remove_all(home_ / "Documents");
  EXPECT_EQ(runTarn(home_, {"resume"}).exitCode, 0);
  // Tasks that nothing stands behind any more must not be waited for.
  writeFileAtomically(files, home_ / "Defaults/ActiveDownloads",
                      bytesOf(R"([{"id":1,"url":"u","status":"downloading"},{"id":2,"url":"u","status":"processing"},)"
                              R"({"id":3,"url":"u","status":"stopped"}])"));
  auto result = runTarn(home_, {"resume"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_NE(result.errors.find("Download 1 failed: its transfer is gone"), std::string::npos) << result.errors;
}

TEST_F(SaveTest, UsageErrorsLeaveWith2) {
  EXPECT_EQ(runTarn(home_, {"save", "http://127.0.0.1/x"}).exitCode, 2);
  EXPECT_EQ(runTarn(home_, {"fly"}).exitCode, 2);
  EXPECT_EQ(runTarn(home_, {}).exitCode, 2);
  EXPECT_EQ(runTarn(home_, {"save", "gopher://x/y", "--album", "a"}).exitCode, 1);
  EXPECT_EQ(runTarn(home_, {"library"}).exitCode, 0) << "an empty library";
  EXPECT_EQ(runTarn(home_, {"library", "--album", "none"}).exitCode, 1);
}

/// One way through the pipeline, and how far apart the kills are on it.
struct Road {
  const char* name;
  size_t stride;
  Bytes (*recording)();
};

Bytes contentsOf(const Path& file) {
  PosixFileManager files{std::filesystem::temp_directory_path()};
  return readFile(files, file);
}

const Road roads[] = {
    {"Tag", 4, [] { return recording(); }},
    {"Remux", 12, [] { return damagedMovie("hev1 with late sound"); }},
    {"SeveralEntries", 12, [] { return damagedMovie("HEVC of two sizes"); }},
    {"Transcode", 12, [] { return contentsOf(damagedFlashBeepClip(4, 1, {})); }},
    {"FastPath", 12,
     [] {
       return contentsOf(damagedFlashBeepClip(600, 2, {"-bsf:a", "noise=drop='between(n,14020,14023)'"}));
     }},
};

/// A kill just before each change of the file system, or every few of them; then a resume, and where
/// the kill came before the transfer was stored, a second save.
class KillSweep : public SaveTest, public testing::WithParamInterface<std::tuple<Road, size_t>> {
 protected:
  /// The bytes of an undisturbed save; behind a swap of the sound the edit lists may differ, and no sample does.
  void expectSavedWhole(const Path& undisturbed) {
    ASSERT_EQ(savedFiles(home_), std::vector<std::string>{"Trips/clip.mp4"});
    const Path saved = home_ / "Photos/Trips/clip.mp4";
    if (contentOf(saved) != contentOf(undisturbed)) {
      EXPECT_EQ(mediaHashes(saved), mediaHashes(undisturbed));
      ++differences_;
    }
    EXPECT_EQ(assetFiles(home_), 1U);
    EXPECT_EQ(leftIn(home_), "");
  }

  size_t differences_ = 0;
};

TEST_P(KillSweep, NothingIsLostWhereverTheProcessDies) {
  const auto& [road, offset] = GetParam();
  server_.serve("/clip.mp4", ServedFile::of(road.recording()));
  const Path undisturbed = place_ / "undisturbed.mp4";
  ASSERT_EQ(save("/clip.mp4").exitCode, 0);
  std::filesystem::copy_file(home_ / "Photos/Trips/clip.mp4", undisturbed);
  size_t kills = 0;
  for (size_t call = 1 + offset * road.stride / 4;; call += road.stride) {
    SCOPED_TRACE("killed at change " + std::to_string(call));
    std::filesystem::remove_all(home_);
    ChildProgram child({KILLED_SAVE_BINARY, home_.string(), server_.url("/clip.mp4"), std::to_string(call)},
                       place_.path());
    const int code = child.wait();
    if (code == 0) break;
    ASSERT_EQ(code, killedBySIGKILL) << child.errors();
    ++kills;
    auto resumed = runTarn(home_, {"resume"});
    ASSERT_EQ(resumed.exitCode, 0) << resumed.errors;
    if (savedFiles(home_).empty()) {
      // The transfer was not stored yet: nobody had been told that it exists.
      ASSERT_EQ(leftIn(home_), "");
      ASSERT_EQ(save("/clip.mp4").exitCode, 0);
    }
    expectSavedWhole(undisturbed);
    if (HasFailure()) return;
  }
  RecordProperty("kills", static_cast<int>(kills));
  EXPECT_GE(kills, 10U);
  EXPECT_LE(differences_, kills / 4);
}

/// The shortest road is killed everywhere; on the others the kills are further apart.
std::vector<std::tuple<Road, size_t>> sweeps() {
  std::vector<std::tuple<Road, size_t>> result;
  for (size_t offset = 0; offset < 4; ++offset) result.emplace_back(roads[0], offset);
  for (size_t road = 1; road < std::size(roads); ++road) result.emplace_back(roads[road], road % 4);
  return result;
}

INSTANTIATE_TEST_SUITE_P(Changes, KillSweep, testing::ValuesIn(sweeps()), [](const auto& row) {
  return std::get<0>(row.param).name + std::to_string(std::get<1>(row.param));
});

}  // namespace
}  // namespace tarn::test
