#include "support/FileTest.h"
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

class FlashBeep : public FileTest {
 protected:
  void fix() {
    auto original = MP4AVSyncFixer::readOriginalSyncInfo(files_, file_);
    EXPECT_TRUE(MP4AVSyncFixer::fix(files_, file_, nullptr, nullptr, original, false));
  }
};

TEST_F(FlashBeep, IsWhereTheRulesPutIt) {
  using enum Outcome;
  const std::vector<std::string> negative = {"-movflags", "negative_cts_offsets"}, ahead = {"-movflags", "faststart"};
  struct {
    double audioLate;
    uint32_t movieTimescale;
    Outcome outcome;
    std::vector<std::string> muxerArguments = {};
    bool isAudioFirst = false;
    void (*edit)(const Path&) = [](const Path&) {};
  } cases[] = {
      {0, 1000, kept},
      {0.02, 1000, kept},
      {0.3, 1000, kept},
      {-0.02, 1000, dropped},
      {-0.05, 1000, withPriming},
      {-0.3, 1000, withPriming},
      {0.3, 30, kept},
      {-0.3, 90000, withPriming},
      {0.3, 1000, kept, negative},
      {-0.3, 1000, withPriming, negative},
      {0.3, 1000, kept, ahead},
      {0.3, 1000, kept, ahead, true},
      {-0.3, 1000, withPriming, {}, true},
      {0.3, 1000, kept, {}, false, widenTimingBoxes},
      {-0.3, 1000, withPriming, {}, false, widenTimingBoxes},
      {0.3, 1000, kept, {}, false, moveEditListsToTrackEnds},
      {-0.3, 1000, withPriming, {}, true, moveEditListsToTrackEnds},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(
        fmt::format("case {}, audio late by {} s, {} ticks per second", &c - cases, c.audioLate, c.movieTimescale));
    auto arguments = c.muxerArguments;
    arguments.insert(arguments.end(), {"-movie_timescale", std::to_string(c.movieTimescale)});
    write(readFile(files_, flashBeepClip(c.audioLate, arguments, c.isAudioFirst)));
    c.edit(file_);
    const double tolerance = 1.0 / c.movieTimescale + 0.001;
    const double source = beepAfterFlash(file_);
    EXPECT_NEAR(source, c.audioLate, 2 * tolerance) << "the clip is not what it should be";
    const std::string samples = mediaHashes(file_);

    fix();
    const double measured = beepAfterFlash(file_);
    EXPECT_NEAR(measured, c.outcome == kept ? source : c.outcome == dropped ? 0 : source - priming, tolerance);
    EXPECT_EQ(mediaHashes(file_), samples);

    const Bytes once = written();
    fix();
    if (c.outcome == withPriming) {
      EXPECT_NEAR(beepAfterFlash(file_), measured - priming, tolerance) << "each pass counts the priming again";
    } else {
      EXPECT_EQ(written(), once) << "a second pass changes nothing";
    }
  }
}

}  // namespace
}  // namespace tarn::test
