#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>

#include "app/TarnProcess.h"
#include "support/FlashBeep.h"
#include "support/MediaMaker.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

class SoundRepair : public testing::Test {
 protected:
  std::string inspect(const Path& file) { return runTarn(place_ / "home", {"inspect", file.string()}).output; }

  std::string repair(const Path& file) {
    const auto result = runTarn(place_ / "home", {"repair", "--verbose", file.string(), "-o", out_.string()});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(decoderComplaints(out_), "");
    return result.errors;
  }

  TempDirectory place_;
  const Path out_ = place_ / "out.mp4";
};

/// Arguments of the muxer that lose these packets, behind others.
std::vector<std::string> dropping(int first, int last, std::vector<std::string> arguments = {}) {
  arguments.insert(arguments.end(), {"-bsf:a", fmt::format("noise=drop='between(n,{},{})'", first, last)});
  return arguments;
}

double seconds(const Path& file, const std::string& stream) {
  return std::stod(runProcess({"ffprobe", "-v", "error", "-select_streams", stream, "-show_entries", "stream=duration",
                               "-of", "csv=p=0", file})
                       .output);
}

TEST_F(SoundRepair, KeepsTimeFromTheFirstSecondToTheLast) {
  struct Row {
    const char* name;
    int length;  // seconds
    int channels;
    std::vector<std::string> damage;
    double late;  // seconds
    double latePerSecond;
    double lost;        // the beep that falls into the hole, or is cut by its edge
    const char* words;  // of inspect
  };
  const Row rows[] = {
      {"a hole in a minute", 60, 2, dropping(1407, 1430), 0, 0, 30, "512 ms of sound missing at"},
      {"a hole behind a late start", 30, 2, dropping(470, 493), 0.3, 0, 10, "512 ms of sound missing at"},
      {"a hole behind an early start", 30, 2, dropping(470, 493), -0.3, 0, 10, "512 ms of sound missing at"},
      {"drift", 120, 2, {"-bsf:a", "setts=ts='TS*1.001'"}, 0, 0.001, -1, "differ in length by"},
      {"a hole in one channel at 44.1 kHz", 30, 1, dropping(470, 493, words("-c:a aac -ar 44100")), 0, 0, 11,
       "557 ms of sound missing at"},
      {"AC-3", 20, 2, words("-c:a ac3 -ac 2"), 0.3, 0, -1, "the sound is AC-3"},
      {"no edit list", 30, 2, dropping(470, 493, {"-use_editlist", "0"}), 0, 0, 10, "512 ms of sound missing at"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const Path clip = damagedFlashBeepClip(row.length, row.channels, row.damage, row.late);
    const std::string inspection = inspect(clip);
    EXPECT_NE(inspection.find(row.words), std::string::npos) << inspection;
    EXPECT_NE(inspection.find("(decision fullNormalize)"), std::string::npos) << inspection;
    repair(clip);
    int compared = 0;
    for (const Beat& beat : beats(out_)) {
      const double own = std::round(beat.flash);
      // The first beep is the encoder's: there is no packet ahead of it. One at a hole's edge is not whole.
      if (own < 1 || std::abs(own - row.lost) <= 1) continue;
      EXPECT_NEAR(beat.beepAfter, row.late + row.latePerSecond * own, 0.002) << own;
      ++compared;
    }
    EXPECT_GE(compared, row.length - 5);
    EXPECT_NEAR(seconds(out_, "a:0"), seconds(clip, "a:0"), 0.05);
    std::filesystem::remove(out_);
  }
}

TEST_F(SoundRepair, FillsAHoleWithSilenceAndWithoutAClick) {
  // It begins in the middle of the beep at 10 s, and ends in silence.
  repair(damagedFlashBeepClip(30, 2, dropping(471, 494)));
  const auto samples = heardSamples(out_);
  const auto at = [](double time) { return static_cast<size_t>(time * 48000); };
  int loudest = 0, largestStep = 0;
  for (size_t i = at(10.1); i < at(10.45); ++i) loudest = std::max(loudest, std::abs(int{samples[i]}));
  for (size_t i = at(9.9); i < at(10.7); ++i) {
    largestStep = std::max(largestStep, std::abs(samples[i + 1] - samples[i]));
  }
  EXPECT_LT(loudest, 100);
  const double stepOfTheTone = 0.8 * 32767 * 2 * 3.14159 * 1000 / 48000;
  EXPECT_LT(largestStep, 1.1 * stepOfTheTone);
}

TEST_F(SoundRepair, TheFastPathKeepsEachBeepWithinAPacketOfItsTime) {
  // 80 ms are a gap, and in ten minutes a light one; four silent packets come nearest.
  const Path clip = damagedFlashBeepClip(600, 2, {"-bsf:a", "setts=ts='if(gt(N,14020),TS+3840,TS)'"});
  const std::string inspection = inspect(clip);
  EXPECT_NE(inspection.find("(decision fastPath)"), std::string::npos) << inspection;
  EXPECT_NE(repair(clip).find("FastPath: Audio repair completed successfully"), std::string::npos);
  for (const Beat& beat : beats(out_)) {
    if (beat.flash < 1) continue;
    EXPECT_NEAR(beat.beepAfter, beat.flash < 299.5 ? 0 : 4 * 1024 / 48000.0, 0.002) << beat.flash;
  }
}

}  // namespace
}  // namespace tarn::test
