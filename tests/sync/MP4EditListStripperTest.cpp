#include <gtest/gtest.h>

#include "platform/host/PosixFileManager.h"
#include "support/FaultyFileManager.h"
#include "support/FlashBeep.h"
#include "support/LogCapture.h"
#include "support/TempDirectory.h"
#include "sync/ErrorTypes.h"
#include "sync/MP4AVSyncFixer.h"
#include "sync/MP4EditListStripper.h"
#include "sync/SyncMovie.h"

namespace tarn::test {
namespace {

constexpr uint32_t rate = 0x10000;

class Stripper : public testing::Test {
 protected:
  Path write(const Bytes& bytes) {
    Path file = directory_ / "movie.mp4";
    writeFileAtomically(files_, file, bytes);
    return file;
  }
  auto strip(const Path& from) {
    removeIfExists(files_, output_);
    return MP4EditListStripper::stripAudioEditList(files_, from, output_);
  }
  std::string failureOf(const Path& from) {
    try {
      strip(from);
    } catch (const MP4EditListStripperError& error) {
      return error.description();
    }
    return "none";
  }

  TempDirectory directory_;
  PosixFileManager files_{directory_.path()};
  Path output_ = directory_ / "stripped.mp4";
  LogCapture log_;
};

TEST_F(Stripper, RemovesTheListOfRealClipsAndNothingElse) {
  for (const auto& arguments : std::vector<std::vector<std::string>>{{}, {"-movflags", "faststart"}}) {
    const Path clip = flashBeepClip(0.3, arguments, "-map 0:v -map 1:a -map 1:a");
    auto rows = strip(clip);
    ASSERT_TRUE(rows);
    EXPECT_EQ(*rows, (std::vector<OriginalEditListEntry>{{278, -1, rate}, {3022, 0, rate}}));
    EXPECT_EQ(mediaHashes(output_), mediaHashes(clip));
    EXPECT_EQ(files_.attributes(output_)->size, files_.attributes(clip)->size - 48);
    auto info = MP4AVSyncFixer::readOriginalSyncInfo(files_, output_);
    EXPECT_TRUE(info.audioEditList.empty());
    EXPECT_EQ(info.videoEditList.size(), 1u);
  }
}

TEST_F(Stripper, CopiesAFileWithNothingToRemove) {
  const SyncMovie::Track video{"vide", 90000, 900000, {SyncMovie::elst({1, 2, rate})}};
  const SyncMovie::Track plain{"soun", 48000, 480000};
  const SyncMovie::Track listed{"soun", 48000, 480000, {SyncMovie::elst({1, 2, rate})}};
  const SyncMovie::Track noRows{"soun", 48000, 480000, {SyncMovie::elst({})}};
  const SyncMovie::Track noList{"soun", 48000, 480000, {box("free")}};
  for (const SyncMovie& movie : {SyncMovie{.tracks = {video}}, SyncMovie{.tracks = {video, plain, listed}},
                                 SyncMovie{.tracks = {video, noRows}}, SyncMovie{.tracks = {noList, video}}}) {
    Path file = write(joined({movie.moov(), box("mdat")}));
    EXPECT_FALSE(strip(file));
    EXPECT_EQ(readFile(files_, output_), readFile(files_, file));
  }
  const SyncMovie::Track signedRow{"soun", 48000, 480000, {SyncMovie::elst({0x80000000, 0xFFFFFFFF, rate})}};
  EXPECT_EQ(strip(write(SyncMovie{.tracks = {signedRow}}.moov()))->front(),
            (OriginalEditListEntry{-0x80000000LL, -1, rate}));
}

TEST_F(Stripper, SaysWhatItCannotDoAndLeavesNothing) {
  const Bytes moov = SyncMovie{.tracks = {{"soun", 48000, 480000, {SyncMovie::elst({1, 2, rate})}}}}.moov();
  struct Row {
    Bytes file;
    const char* failure;
  };
  for (const Row& row : std::vector<Row>{
           {joined({moov, box("mdat"), box("moof")}), "fragmentedMP4NotSupported"},
           {box("mdat"), "corruptedMP4: moov box not found"},
           {joined({boxClaiming(7, "free"), moov}), "corruptedMP4: moov box not found"},
           {longBox("moov", {Bytes(moov.begin() + 8, moov.end())}), "corruptedMP4: moov box has a 64-bit size field"},
           {joined({moov, boxClaiming(100, "mdat", {Bytes(20)})}), "ioError: Read failed"},
           {boxClaiming(5000, "moov", {Bytes(20)}), "ioError: Cannot read moov"}}) {
    EXPECT_EQ(failureOf(write(row.file)), row.failure);
    EXPECT_FALSE(files_.fileExists(output_));
  }
  EXPECT_EQ(failureOf(directory_ / "none"), "fileNotFound");
  EXPECT_EQ(failureOf(directory_.path()), "cannotOpenFile");

  FaultyFileManager faulty(files_);
  const Path file = write(joined({moov, box("mdat", {Bytes(20)})}));
  uint64_t call = 1;
  for (bool fired = true; fired; ++call) {
    removeIfExists(files_, output_);
    faulty.arm({.call = call,
                .errnum = ENOSPC,
                .effect = Fault::Effect::half,
                .among = {FileOperation::open, FileOperation::write, FileOperation::flush, FileOperation::close}});
    try {
      MP4EditListStripper::stripAudioEditList(faulty, file, output_);
    } catch (const Error&) {
      EXPECT_FALSE(files_.fileExists(output_)) << "call " << call;
    }
    fired = faulty.fired();
  }
  EXPECT_GT(call, 5u);
}

}  // namespace
}  // namespace tarn::test
