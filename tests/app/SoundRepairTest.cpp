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

/// The edit list of ffmpeg's clips skips a packet of priming. It is stripped ahead of decoding, so that the sound of
/// the result comes later by that packet.
constexpr double priming = 1024 / 48000.0;

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
    double late;
    double shift;  // of every beep, seconds
    double shiftPerSecond;
    double lost;        // the beep that falls into the hole, or is cut by its edge
    const char* words;  // of inspect
  };
  const Row rows[] = {
      {"a hole in ten minutes", 600, 2, dropping(14063, 14086), 0, priming, 0, 300, "a gap of 512.0 ms at"},
      {"a hole behind a late start", 30, 2, dropping(470, 493), 0.3, 0.3, 0, 10, "a gap of 512.0 ms at"},
      {"drift", 120, 2, {"-bsf:a", "setts=ts='TS*1.001'"}, 0, priming, 0.001, -1, "differ in length by"},
      {"one channel", 20, 1, {}, 0, priming, 0, -1, "Channel count 1 != target 2"},
      // Its first picture comes 80 ms after its first sound. Sound that is early is not kept so.
      {"no edit list", 30, 2, dropping(470, 493, {"-use_editlist", "0"}), 0, 0.08, 0, 10, "a gap of 512.0 ms"},
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
      EXPECT_NEAR(beat.beepAfter, row.shift + row.shiftPerSecond * own, 0.002) << own;
      ++compared;
    }
    EXPECT_GE(compared, row.length - 5);
    // The sound ends with the picture, or earlier.
    EXPECT_NEAR(seconds(out_, "a:0"), seconds(clip, "v:0"), 0.15);
    std::filesystem::remove(out_);
  }
}

TEST_F(SoundRepair, FillsAHoleWithSilenceAndWithoutAClick) {
  // It begins in the middle of the beep at 10 s, and ends in silence.
  repair(damagedFlashBeepClip(30, 2, dropping(471, 494)));
  const auto samples = heardSamples(out_);
  const auto at = [](double time) { return static_cast<size_t>((time + priming) * 48000); };
  int loudest = 0, largestStep = 0;
  for (size_t i = at(10.1); i < at(10.45); ++i) loudest = std::max(loudest, std::abs(int{samples[i]}));
  for (size_t i = at(9.9); i < at(10.7); ++i) {
    largestStep = std::max(largestStep, std::abs(samples[i + 1] - samples[i]));
  }
  EXPECT_LT(loudest, 100);
  const double stepOfTheTone = 0.8 * 32767 * 2 * 3.14159 * 1000 / 48000;
  EXPECT_LT(largestStep, 1.1 * stepOfTheTone);
}

TEST_F(SoundRepair, TakesTheFastPathForLightDamage) {
  // Three packets are 64 ms: four are a hole, and in ten minutes a light one.
  const Path clip = damagedFlashBeepClip(600, 2, dropping(14020, 14023));
  const std::string inspection = inspect(clip);
  EXPECT_NE(inspection.find("(decision fastPath)"), std::string::npos) << inspection;
  EXPECT_NE(inspection.find("the sound moves forward by 85.3 ms"), std::string::npos) << inspection;
  EXPECT_NE(repair(clip).find("FastPath: Audio repair completed successfully"), std::string::npos);
  const auto found = beats(out_);
  const auto shiftAt = [&](double time) {
    return std::ranges::find_if(found, [&](const Beat& beat) { return std::abs(beat.flash - time) < 0.1; })->beepAfter;
  };
  // Holes close up: what is behind one is heard earlier by its length.
  EXPECT_NEAR(shiftAt(590) - shiftAt(10), -4 * 1024 / 48000.0, 0.002);
}

}  // namespace
}  // namespace tarn::test
