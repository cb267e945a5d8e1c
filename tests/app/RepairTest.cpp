#include <sys/stat.h>
#include <tarn/repair.h>

#include <algorithm>
#include <csignal>

#include "app/CommandTest.h"
#include "engine/PlacingStep.h"
#include "platform/host/PosixFileManager.h"
#include "support/BoxEditor.h"
#include "support/FlashBeep.h"
#include "support/RunRecorder.h"

namespace tarn::test {
namespace {

class RepairTest : public CommandTest {
 protected:
  RepairTest() { fs::create_directory(out_.parent_path()); }

  void write(const Bytes& bytes) {
    writeFileAtomically(files_, in_, bytes);
    source_ = std::string(textOf(bytes));
  }

  /// No file but these stands where the result goes, hidden ones counted.
  size_t filesBesideOut() {
    return static_cast<size_t>(std::distance(fs::directory_iterator(out_.parent_path()), fs::directory_iterator()));
  }

  PosixFileManager files_{place_.path()};
  const Path in_ = place_ / "clip.mp4";
  const Path out_ = place_ / "out" / "fixed.mp4";
  std::string source_;
};

TEST_F(RepairTest, AMovieWhoseMoovIsLostIsRebuiltLikeAHealthyOne) {
  const Path whole = damagedFlashBeepClip(6, 2, {}), healthy = damagedFlashBeepClip(4, 2, {});
  Bytes broken = readFile(files_, whole);
  const size_t moov = BoxEditor(broken).at("moov").offset, inTrack = BoxEditor(broken).at("moov/trak").offset + 100;
  const auto rebuild = [&](size_t size, const Path& like, int code, const char* told) {
    broken.resize(size);
    write(broken);
    expect(code, {"repair", in_, "-o", out_, "--like", like}, told);
    EXPECT_EQ(filesBesideOut(), code == 4 ? 0U : 1U);
    EXPECT_EQ(contentOf(in_), source_);
  };
  rebuild(inTrack, damagedFlashBeepClip(4, 1, {}), 4, "breaks at byte");
  expect(4, {"repair", in_, "-o", out_}, "rebuild it with `tarn repair --like`");
  for (const size_t size : {inTrack, moov}) {
    rebuild(size, healthy, 0, "");
    EXPECT_EQ(mediaHashes(out_), mediaHashes(whole));
    EXPECT_EQ(frameHashes(out_), frameHashes(whole));
  }
  rebuild(moov * 3 / 4, healthy, 5, "breaks at byte");
  EXPECT_EQ(decoderComplaints(out_), "");
}

// No repair brings such samples back, so whoever counts on exit codes must not take the result for a whole video.
TEST_F(RepairTest, SamplesOutsideTheFileMakeTheResultPartOfAVideo) {
  for (const bool canReadSound : {true, false}) {
    BoxEditor editor(damagedMovie("a gap in the sound"));
    const auto chunks = editor.all("moov/trak/mdia/minf/stbl/stco");
    editor.setField(chunks[0].end() - 4, 0x7fffffff);
    if (!canReadSound) editor.setField(chunks[1].offset + 12, 0x7fffffff);
    write(editor.bytes);
    expect(4, {"inspect", in_});
    EXPECT_THAT(expect(5, {"repair", in_, "-o", out_, "--json"}, "\"partly\"").output,
                HasSubstr("A part of the video is not in the file"));
  }
}

/// The whole of a repair is compared with its source, whatever each step has proved.
TEST_F(RepairTest, AResultThatWouldDoHarmIsNotTaken) {
  write(damagedMovie("B-frames and sound"));
  for (const bool doesHarm : {true, false}) {
    BoxEditor editor(damagedMovie("B-frames and sound"));
    const auto list = editor.at("moov/trak/edts/elst");
    editor.setField(list.offset + 16, doesHarm ? 1960 : 2001);  // the last picture lasts 40 ms
    const Path result = place_ / "result.mp4";
    LayeredFiles layers(files_, place_ / "side");
    layers.layOver(result, in_);
    layers.open(result, OpenMode::creating)->write(editor.bytes);
    RunRecorder recorder;
    ProcessingRun run = recorder.runOn(layers, result);
    PlacingStep(layers, {in_, in_, files_.attributes(in_)}, {place_ / "made", out_}).run(run);
    EXPECT_EQ(contentOf(out_), doesHarm ? source_ : textOf(editor.bytes));
    const std::string warning = "The file was left as it is, since its repair would do harm: 1 picture is hidden";
    EXPECT_EQ(run.outcome.leftAlone, std::vector<std::string>(doesHarm ? 1 : 0, warning));
  }
}

// Its bytes are read until the result is made, so a result could be made of two versions.
TEST_F(RepairTest, ASourceThatChangesMeanwhileFailsTheRepair) {
  write(damagedMovie("AC-3 sound"));
  const auto touch = [&](std::string_view, double) { std::ofstream(in_, std::ios::app) << "more"; };
  EXPECT_EQ(repairFile(in_, out_).kind, RepairReport::Kind::repaired);
  fs::remove(out_);
  const RepairReport report = repairFile(in_, out_, {}, touch);
  EXPECT_EQ(report.kind, RepairReport::Kind::failed);
  EXPECT_TRUE(report.mayTryAgain);
  EXPECT_EQ(filesBesideOut(), 0U);
}

TEST_F(RepairTest, RefusesEndsThatAreNotSafe) {
  write(damagedMovie("avc3 with avcC"));
  const Path hardLink = place_ / "hard.mp4", softLink = place_ / "soft.mp4", pipe = place_ / "pipe";
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
    std::error_code none;
    const auto result = expect(fs::equivalent(in, out, none) ? 2 : 1, {"repair", in, "-o", out});
    EXPECT_EQ(std::ranges::count(result.errors, '\n'), 1) << result.errors;
    EXPECT_EQ(contentOf(in_), source_);
    EXPECT_EQ(filesBesideOut(), 0u);
  }
  expect(1, {"inspect", pipe});

  // A link to another file stays a link, and that file is replaced.
  std::ofstream(out_) << "old";
  fs::remove(softLink);
  fs::create_symlink(out_, softLink);
  expect(0, {"repair", in_, "-o", softLink});
  EXPECT_TRUE(fs::is_symlink(softLink));
  EXPECT_EQ(probeVideo(out_, "codec_tag_string"), "avc1");
}

TEST_F(RepairTest, AnInterruptLeavesNothing) {
  // A file so big that its repair can be disturbed once its work has begun.
  write(damagedMovie("hev1 with an empty hvcC"));
  std::ofstream(in_, std::ios::app) << std::string("\x40\0\0\0free", 8);
  fs::resize_file(in_, source_.size() + 0x40000000);
  for (int number : {SIGINT, SIGTERM}) {
    const Child tarn = start({"repair", in_, "-o", out_});
    EXPECT_TRUE(eventually([&] { return filesBesideOut() > 0; }));
    tarn->signal(number);
    EXPECT_EQ(tarn->wait(), 130) << tarn->errors();
    EXPECT_FALSE(fs::exists(out_));
    // A SIGTERM leaves it a second for that; then the next start does it.
    if (number == SIGTERM) run({"repair", place_ / "missing.mp4", "-o", out_});
    EXPECT_EQ(filesBesideOut(), 0u);
  }
}

}  // namespace
}  // namespace tarn::test
