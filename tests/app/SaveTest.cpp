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

const Bytes& recording() {
  return damagedMovie("avc3 with avcC");
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

  /// A save whose transfer has been slowed down, and is in its middle.
  std::unique_ptr<ChildProgram> startSlowSave(const std::vector<Reply>& laterReplies = {},
                                              const Reply& afterwards = {}) {
    std::filesystem::remove_all(home_);
    std::vector<Reply> replies{{.bytesPerSecond = recording().size() / 4}};
    replies.insert(replies.end(), laterReplies.begin(), laterReplies.end());
    server_.serve("/clip.mp4", ServedFile::of(recording()), replies, afterwards);
    const auto command = tarnCommand(home_, {"save", server_.url("/clip.mp4"), "--album", "Trips"});
    auto tarn = std::make_unique<ChildProgram>(command, place_.path());
    for (int i = 0; i < 1000 && partialBytes() < recording().size() / 4; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_GE(partialBytes(), recording().size() / 4);
    EXPECT_LT(partialBytes(), recording().size());
    return tarn;
  }

  TempDirectory place_;
  Path home_ = place_.path() / "home";
  FaultServer server_;
};

TEST_F(SaveTest, RepairsTheTagAndNothingElse) {
  server_.serve("/clip.mp4", ServedFile::of(recording()));
  const Path saved = home_ / "Photos/Trips/clip.mp4";
  auto result = save("/clip.mp4");
  EXPECT_EQ(result.exitCode, 0) << result.errors;
  EXPECT_EQ(result.lastLine(), saved.string());
  expectSavedOnce(repaired());
  EXPECT_EQ(probeVideo(saved, "codec_tag_string"), "avc1");
  EXPECT_EQ(decoderComplaints(saved), "");
  auto library = runTarn(home_, {"library", "--json"});
  EXPECT_NE(library.output.find(R"("album":"Trips")"), std::string::npos) << library.output;
}

TEST_F(SaveTest, AKillInMidDownloadLosesNothingAndSplicesNothing) {
  const std::string backwards(recording().rbegin(), recording().rend());
  const auto second = ServedFile::of(Bytes(backwards.begin(), backwards.end())).withETag("\"v2\"");
  const std::pair<Reply, std::string> rows[] = {{{}, repaired()},
                                                {{.file = second}, backwards},
                                                {{.file = second, .ignoresIfRange = true}, backwards},
                                                {{.file = second, .ignoresRange = true}, backwards}};
  for (const auto& [afterTheKill, content] : rows) {
    const size_t before = server_.requests().size();
    auto tarn = startSlowSave({afterTheKill}, {.file = second});
    tarn->signal(SIGKILL);
    EXPECT_EQ(tarn->wait(), killedBySIGKILL);
    auto result = runTarn(home_, {"resume"});
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_EQ(result.lastLine(), (home_ / "Photos/Trips/clip.mp4").string());
    expectSavedOnce(content);
    const ReceivedRequest again = server_.requests().at(before + 1);
    EXPECT_TRUE(again.header("range").starts_with("bytes="));
    EXPECT_EQ(again.header("if-range"), "\"v1\"");
  }
}

TEST_F(SaveTest, AnInterruptKeepsTheTransferAndLeavesWith130) {
  for (int number : {SIGTERM, SIGINT}) {
    auto tarn = startSlowSave();
    auto second = save("/clip.mp4");
    EXPECT_EQ(second.exitCode, 1);
    EXPECT_NE(second.errors.find("Another tarn works in"), std::string::npos) << second.errors;
    tarn->signal(number);
    EXPECT_EQ(tarn->wait(), 130) << tarn->errors();
    EXPECT_EQ(runTarn(home_, {"resume"}).exitCode, 0);
    expectSavedOnce(repaired());
  }
}

TEST_F(SaveTest, AServersFaultsEndInAWholeFileOrAClearFailure) {
  const std::string page = "<html>not a video</html>";
  struct Row {
    const char* name;
    std::vector<Reply> replies;
    Reply afterwards;
    std::string saved;  // what ends in the album; nothing when the save fails
    const char* words = "";
  };
  const Row rows[] = {
      {"404", {}, {.status = 404}, "", "404"},
      {"cut once", {{.closeAfter = 1000}}, {}, repaired()},
      {"redirect to a file", {}, {.status = 302, .location = "file:///etc/passwd"}, ""},
      {"no video at all", {}, {.file = ServedFile::of(Bytes(page.begin(), page.end()))}, page},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::filesystem::remove_all(home_);
    server_.serve("/clip.mp4", ServedFile::of(recording()), row.replies, row.afterwards);
    auto result = save("/clip.mp4");
    EXPECT_EQ(result.exitCode, row.saved.empty() ? 1 : 0) << result.errors;
    if (!row.saved.empty()) {
      expectSavedOnce(row.saved);
      continue;
    }
    EXPECT_NE(result.errors.find("The video was not saved"), std::string::npos) << result.errors;
    EXPECT_NE(result.errors.find(row.words), std::string::npos) << result.errors;
    EXPECT_EQ(savedFiles(home_).size() + leftIn(home_).size(), 0U);
  }
}

TEST_F(SaveTest, NamesAndAlbumsAreSafe) {
  const std::string encoded = "/%F0%9F%8E%AC%20day%0A1";
  server_.serve(encoded, ServedFile::of(recording()));
  struct Row {
    std::string album;
    std::vector<std::string> filename;
    std::vector<std::string> saved;  // nothing when the save fails
  };
  const Row rows[] = {
      {"Trips", {}, {"Trips/🎬 day_1.mp4"}},
      {"Trips", {"--filename", "../x"}, {}},
      {"Trips", {"--filename", "/etc/x"}, {}},
      {"Trips", {"--filename", ""}, {}},
      {"Trips", {"--filename", std::string(300, 'n')}, {}},
      {"", {"--filename", "clip.mp4"}, {}},
      {"🎄", {"--filename", "clip.mp4"}, {"🎄/clip.mp4"}},
      {"a/../../b", {"--filename", "clip.mp4"}, {"a_.._.._b/clip.mp4"}},
  };
  for (const Row& row : rows) {
    std::filesystem::remove_all(home_);
    std::vector<std::string> arguments{"save", server_.url(encoded), "--album", row.album};
    arguments.insert(arguments.end(), row.filename.begin(), row.filename.end());
    auto result = runTarn(home_, arguments);
    EXPECT_EQ(result.exitCode, row.saved.empty() ? 1 : 0) << arguments.back() << ": " << result.errors;
    EXPECT_EQ(savedFiles(home_), row.saved);
    EXPECT_EQ(leftIn(home_), "") << arguments.back();
  }
}

TEST_F(SaveTest, DamagedStoresAndMissingDirectoriesStopNobody) {
  server_.serve("/clip.mp4", ServedFile::of(recording()));
  std::filesystem::create_directories(home_ / "Defaults");
  PosixFileManager files(home_);
  for (const char* key :
       {"ActiveDownloads", "MaxConcurrentDownloads", "com.sorrel.capacitor.downloader.processingStates"}) {
    writeFileAtomically(files, home_ / "Defaults" / key, bytesOf("[7,{\"stage\":\"stopped\"}"));
  }
  const Path abandoned = hiddenSibling(home_ / "token");
  writeFileAtomically(files, abandoned, {});
  EXPECT_EQ(save("/clip.mp4").exitCode, 0);
  expectSavedOnce(repaired());
  EXPECT_FALSE(files.fileExists(abandoned));
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

TEST_F(SaveTest, ExitCodesTellUsageFromFailure) {
  const std::pair<const char*, int> rows[] = {{"", 2},
                                              {"fly", 2},
                                              {"save http://127.0.0.1/x", 2},
                                              {"serve --json", 2},
                                              {"demo --json", 2},
                                              {"library --background-seconds 9223372036854775807", 2},
                                              {"save gopher://x/y --album a", 1},
                                              {"library --album none", 1},
                                              {"library", 0}};
  for (const auto& [line, code] : rows) EXPECT_EQ(runTarn(home_, words(line)).exitCode, code) << line;
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
