#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

#include "app/DamagedMovies.h"
#include "app/TarnProcess.h"
#include "platform/host/PosixFileManager.h"
#include "support/FaultServer.h"
#include "support/MediaMaker.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

namespace fs = std::filesystem;

class RepairTest : public testing::Test {
 protected:
  RepairTest() {
    for (const Path& directory : {in_.parent_path(), out_.parent_path()}) fs::create_directory(directory);
  }

  void write(const Bytes& bytes) {
    writeFileAtomically(files_, in_, bytes);
    source_ = std::string(textOf(bytes));
  }

  TarnResult repair(const Path& in, const Path& out, const std::vector<std::string>& more = {}) {
    std::vector<std::string> arguments{"repair", in.string(), "-o", out.string()};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return runTarn(place_ / "home", arguments);
  }

  /// No file but these stands where the result goes, hidden ones counted.
  size_t filesBesideOut() {
    return static_cast<size_t>(std::distance(fs::directory_iterator(out_.parent_path()), fs::directory_iterator()));
  }

  /// A repair of a file so big that it can be disturbed, once its work has begun.
  std::unique_ptr<ChildProgram> startLongRepair() {
    std::ofstream(in_, std::ios::binary | std::ios::app)
        .write(
            "\x06\x00\x00\x00"
            "free",
            8);
    fs::resize_file(in_, source_.size() + 0x6000000);
    auto tarn = std::make_unique<ChildProgram>(
        tarnCommand(place_ / "home", {"repair", in_.string(), "-o", out_.string()}), place_.path());
    for (int i = 0; i < 2000 && filesBesideOut() == 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return tarn;
  }

  TempDirectory place_;
  PosixFileManager files_{place_.path()};
  const Path in_ = place_ / "in" / "clip.mp4";
  const Path out_ = place_ / "out" / "fixed.mp4";
  std::string source_;
};

TEST_F(RepairTest, MakesAPlayableFileOfADamagedOne) {
  struct {
    const char* movie;
    const char* tag;
  } const rows[] = {{"hev1 with an empty hvcC", "hvc1"}, {"avc3 without avcC", "avc1"},
                    {"hev1 with late sound", "hvc1"},    {"HEVC of two sizes", "hvc1"},
                    {"AVC of two sizes", "avc1"},        {"avc3 with avcC", "avc1"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.movie);
    write(damagedMovie(row.movie));
    auto result = repair(in_, out_);
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_EQ(result.lastLine(), out_.string());
    EXPECT_EQ(probeVideo(out_, "codec_tag_string").substr(0, 4), row.tag);
    EXPECT_EQ(decoderComplaints(out_), "");
    EXPECT_EQ(contentOf(in_), source_);
    auto inspection = runTarn(place_ / "home", {"inspect", out_.string()});
    EXPECT_NE(inspection.output.find("parameter sets complete"), std::string::npos) << inspection.output;

    const Path again = place_ / "again.mp4";
    EXPECT_EQ(repair(out_, again).exitCode, 0);
    EXPECT_EQ(contentOf(again), contentOf(out_));
    EXPECT_EQ(filesBesideOut(), 1u);
    EXPECT_FALSE(fs::exists(place_ / "home")) << "a repair needs no home";
  }
}

TEST_F(RepairTest, SaysWhatItCannotDoAndWhatToTry) {
  write(damagedMovie("no sets anywhere"));
  std::ofstream(out_) << "old";
  auto refused = repair(in_, out_, {"--json"});
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_NE(refused.errors.find("--skip-video-fix"), std::string::npos) << refused.errors;
  EXPECT_EQ(std::ranges::count(refused.errors, '\n'), 1) << refused.errors;
  EXPECT_NE(refused.output.find(R"("result":"failed")"), std::string::npos) << refused.output;
  EXPECT_EQ(contentOf(in_), source_);
  EXPECT_EQ(contentOf(out_), "old");
  EXPECT_EQ(filesBesideOut(), 1u);
  EXPECT_EQ(repair(in_, out_, {"--skip-video-fix"}).exitCode, 0);
  EXPECT_EQ(contentOf(out_), source_);

  FaultServer server;
  server.serve("/clip.mp4", ServedFile::of(damagedMovie("no sets anywhere")));
  auto saved = runTarn(place_ / "home", {"save", server.url("/clip.mp4"), "--album", "Trips"});
  EXPECT_EQ(saved.exitCode, 1);
  EXPECT_NE(saved.errors.find("--skip-video-fix"), std::string::npos) << saved.errors;

  write(damagedMovie("encv"));
  auto encrypted = repair(in_, out_);
  EXPECT_EQ(encrypted.exitCode, 0) << encrypted.errors;
  EXPECT_NE(encrypted.output.find("encrypted"), std::string::npos) << encrypted.output;
  EXPECT_EQ(contentOf(out_), source_);
}

TEST_F(RepairTest, RefusesEndsThatAreNotSafe) {
  write(damagedMovie("avc3 with avcC"));
  const Path hardLink = place_ / "hard.mp4";
  const Path softLink = place_ / "soft.mp4";
  const Path pipe = place_ / "pipe";
  fs::create_hard_link(in_, hardLink);
  fs::create_symlink(in_, softLink);
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const std::pair<Path, Path> rows[] = {{in_, in_},
                                        {in_, hardLink},
                                        {in_, softLink},
                                        {softLink, in_},
                                        {in_, place_.path()},
                                        {in_, pipe},
                                        {pipe, out_},
                                        {place_ / "missing.mp4", out_},
                                        {in_, place_ / "missing" / "fixed.mp4"}};
  for (const auto& [in, out] : rows) {
    auto result = repair(in, out);
    EXPECT_EQ(result.exitCode, 1) << in << " " << out;
    EXPECT_EQ(std::ranges::count(result.errors, '\n'), 1) << result.errors;
    EXPECT_EQ(contentOf(in_), source_);
    EXPECT_EQ(filesBesideOut(), 0u);
  }
  EXPECT_EQ(runTarn(place_ / "home", {"inspect", pipe.string()}).exitCode, 1);

  // A link to another file stays a link, and that file is replaced.
  std::ofstream(out_) << "old";
  fs::remove(softLink);
  fs::create_symlink(out_, softLink);
  EXPECT_EQ(repair(in_, softLink).exitCode, 0);
  EXPECT_TRUE(fs::is_symlink(softLink));
  EXPECT_EQ(probeVideo(out_, "codec_tag_string"), "avc1");
}

TEST_F(RepairTest, AKillLeavesTheResultWholeOrNotAtAll) {
  for (int delay : {0, 20, 60, 150, 300}) {
    write(damagedMovie("hev1 with an empty hvcC"));
    std::error_code ignored;
    fs::remove(out_, ignored);
    auto tarn = startLongRepair();
    std::this_thread::sleep_for(std::chrono::milliseconds(delay));
    tarn->signal(SIGKILL);
    tarn->wait();
    EXPECT_EQ(fs::file_size(in_), source_.size() + 0x6000000);
    if (fs::exists(out_)) {
      EXPECT_EQ(probeVideo(out_, "codec_tag_string"), "hvc1");
    }
    write(damagedMovie("hev1 with an empty hvcC"));
    EXPECT_EQ(repair(in_, out_).exitCode, 0);
    EXPECT_EQ(filesBesideOut(), 1u) << "what the killed process has left";
  }
}

TEST_F(RepairTest, AnInterruptLeavesNothing) {
  for (int number : {SIGINT, SIGTERM}) {
    write(damagedMovie("hev1 with an empty hvcC"));
    auto tarn = startLongRepair();
    tarn->signal(number);
    EXPECT_EQ(tarn->wait(), 130) << tarn->errors();
    EXPECT_EQ(filesBesideOut(), 0u);
  }
}

}  // namespace
}  // namespace tarn::test
