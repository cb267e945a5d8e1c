#include <gtest/gtest.h>

#include <filesystem>
#include <iostream>

#include "platform/host/PosixFileManager.h"
#include "support/LogCapture.h"
#include "support/TempDirectory.h"
#include "sync/FlashBeep.h"
#include "sync/MP4AVSyncFixer.h"

namespace tarn::test {
namespace {

/// What the rules make of the source's distance between flash and beep.
enum class Outcome {
  kept,
  dropped,      // within the tolerance: the tracks start together
  withPriming,  // kept, but the audio's 1024 skipped samples count as a part of it
};

constexpr double priming = 1024.0 / 48000;

struct Row {
  const char* name;
  double audioLate;
  uint32_t movieTimescale;
  Outcome outcome;
  std::vector<std::string> muxerArguments = {};
  bool audioFirst = false;
  void (*edit)(const Path&) = nullptr;
};

void PrintTo(const Row& row, std::ostream* out) {
  *out << row.name;
}

const std::vector<Row> rows{
    {"together", 0, 1000, Outcome::kept},
    {"late20ms", 0.02, 1000, Outcome::kept},
    {"late50ms", 0.05, 1000, Outcome::kept},
    {"late51ms", 0.051, 1000, Outcome::kept},
    {"late300ms", 0.3, 1000, Outcome::kept},
    {"early20ms", -0.02, 1000, Outcome::dropped},
    {"early50ms", -0.05, 1000, Outcome::withPriming},
    {"early51ms", -0.051, 1000, Outcome::withPriming},
    {"early300ms", -0.3, 1000, Outcome::withPriming},
    {"late300msAt30", 0.3, 30, Outcome::kept},
    {"early50msAt30", -0.05, 30, Outcome::dropped},
    {"early300msAt30", -0.3, 30, Outcome::withPriming},
    {"late300msAt600", 0.3, 600, Outcome::kept},
    {"early51msAt600", -0.051, 600, Outcome::withPriming},
    {"late50msAt90000", 0.05, 90000, Outcome::kept},
    {"early20msAt90000", -0.02, 90000, Outcome::dropped},
    {"early300msAt90000", -0.3, 90000, Outcome::withPriming},
    {"late300msNegativeOffsets", 0.3, 1000, Outcome::kept, {"-movflags", "negative_cts_offsets"}},
    {"early300msNegativeOffsets", -0.3, 1000, Outcome::withPriming, {"-movflags", "negative_cts_offsets"}},
    {"late300msMoovAhead", 0.3, 1000, Outcome::kept, {"-movflags", "faststart"}},
    {"late300msAudioFirst", 0.3, 1000, Outcome::kept, {"-movflags", "faststart"}, true},
    {"early300msAudioFirst", -0.3, 1000, Outcome::withPriming, {}, true},
    {"late300msVersion1", 0.3, 1000, Outcome::kept, {}, false, widenTimingBoxes},
    {"early300msVersion1", -0.3, 1000, Outcome::withPriming, {}, false, widenTimingBoxes},
    {"late300msEdtsBehindMdia", 0.3, 1000, Outcome::kept, {}, false, moveEditListsToTrackEnds},
    {"early300msEdtsBehindMdia", -0.3, 1000, Outcome::withPriming, {}, true, moveEditListsToTrackEnds},
};

class FixedClip : public testing::Test {
 protected:
  Path copyOf(const Path& clip) {
    Path file = directory_ / "clip.mp4";
    std::filesystem::copy_file(clip, file);
    return file;
  }
  bool fix(const Path& file) {
    auto original = MP4AVSyncFixer::readOriginalSyncInfo(files_, file);
    return MP4AVSyncFixer::fix(files_, file, nullptr, nullptr, original, false);
  }

  LogCapture log_;
  TempDirectory directory_;
  PosixFileManager files_{directory_.path()};
};

class FlashBeep : public FixedClip, public testing::WithParamInterface<Row> {};

TEST_P(FlashBeep, IsWhereTheRulesPutIt) {
  const Row& row = GetParam();
  auto arguments = row.muxerArguments;
  arguments.insert(arguments.end(), {"-movie_timescale", std::to_string(row.movieTimescale)});
  Path file = copyOf(flashBeepClip(row.audioLate, arguments, row.audioFirst));
  if (row.edit) row.edit(file);
  const double tolerance = 1.0 / row.movieTimescale + 0.001;
  const double source = beepAfterFlash(file);
  EXPECT_NEAR(source, row.audioLate, 2 * tolerance) << "the clip is not what it should be";
  const std::string samples = mediaHashes(file);

  ASSERT_TRUE(fix(file));
  const double expected = row.outcome == Outcome::kept      ? source
                          : row.outcome == Outcome::dropped ? 0
                                                            : source - priming;
  const double measured = beepAfterFlash(file);
  EXPECT_NEAR(measured, expected, tolerance);
  EXPECT_EQ(mediaHashes(file), samples);
  std::cout << "| " << row.name << " | " << source * 1000 << " | " << expected * 1000 << " | " << measured * 1000
            << " |\n";

  const Bytes once = readFile(files_, file);
  fix(file);
  if (row.outcome != Outcome::withPriming) {
    EXPECT_EQ(readFile(files_, file), once) << "a second pass changes nothing";
  } else {
    EXPECT_NEAR(beepAfterFlash(file), measured - priming, tolerance) << "each pass counts the priming again";
  }
}

INSTANTIATE_TEST_SUITE_P(Clips, FlashBeep, testing::ValuesIn(rows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(FixedClip, LeavesTheSamplesOfFurtherTracksWhereTheyAre) {
  for (bool isReplaced : {false, true}) {
    Path file = copyOf(flashBeepClip(0.3, {"-movflags", "faststart"}, false, true));
    const std::string samples = mediaHashes(file);
    const auto sizeBefore = std::filesystem::file_size(file);
    // Facts without rows put in a shorter list than the file's.
    auto original = isReplaced ? std::nullopt : std::optional(MP4AVSyncFixer::readOriginalSyncInfo(files_, file));
    ASSERT_TRUE(MP4AVSyncFixer::fix(files_, file, nullptr, nullptr, original, isReplaced));
    EXPECT_EQ(std::filesystem::file_size(file) != sizeBefore, isReplaced);
    EXPECT_EQ(mediaHashes(file), samples);
    std::filesystem::remove(file);
  }
}

}  // namespace
}  // namespace tarn::test
