#include <gtest/gtest.h>

#include "support/FlashBeep.h"
#include "support/MediaMaker.h"
#include "support/TarnProcess.h"
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

TEST_F(SoundRepair, TheFastPathKeepsEachBeepWithinAPacketOfItsTime) {
  // 67 ms are a gap, and in seven minutes a light one; three silent packets come nearest.
  const Path clip = damagedFlashBeepClip(420, 2, {"-bsf:a", "setts=ts='if(gt(N,9844),TS+3200,TS)'"});
  const std::string inspection = inspect(clip);
  EXPECT_NE(inspection.find("filled the gap with silence"), std::string::npos) << inspection;
  EXPECT_NE(repair(clip).find("FastPath: Audio repair completed successfully"), std::string::npos);
  for (const Beat& beat : beats(out_)) {
    if (beat.flash < 1) continue;
    EXPECT_NEAR(beat.beepAfter, beat.flash < 210.5 ? 0 : 3 * 1024 / 48000.0, 0.002) << beat.flash;
  }
}

}  // namespace
}  // namespace tarn::test
