#include "support/BoxEditor.h"
#include "support/FileTest.h"
#include "support/FlashBeep.h"
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

void moveEditListsToTrackEnds(BoxEditor& movie) {
  for (int done = 0; done < 2; ++done) {
    const Bytes list = movie.get("moov/trak/edts");
    movie.replace(movie.at("moov/trak/edts"), {});
    movie.insert("moov/trak", movie.at("moov/trak").end(), list);
    if (done == 0) movie.rename("moov/trak", "skip");
  }
  movie.rename("moov/skip", "trak");
}

class FlashBeep : public FileTest {
 protected:
  void fix() {
    auto original = MP4AVSyncFixer::readOriginalSyncInfo(files_, file_);
    EXPECT_TRUE(MP4AVSyncFixer::fix(files_, file_, nullptr, nullptr, original, false));
  }
  double beepAfterFlash() { return beats(file_).at(1).beepAfter; }
};

TEST_F(FlashBeep, IsWhereTheRulesPutIt) {
  using enum Outcome;
  const std::vector<std::string> negative = {"-movflags", "negative_cts_offsets"}, ahead = {"-movflags", "faststart"};
  // So fine that times take 64 bits, in the headers and edit lists.
  constexpr uint32_t fine = 2'000'000'000;
  const std::vector<std::string> wide = {"-video_track_timescale", std::to_string(fine)};
  const std::string videoFirst = "-map 0:v -map 1:a", audioFirst = "-map 1:a -map 0:v";
  struct {
    double audioLate;
    uint32_t movieTimescale;
    Outcome outcome;
    std::vector<std::string> muxerArguments = {};
    std::string tracks = "-map 0:v -map 1:a";
    void (*edit)(BoxEditor&) = [](BoxEditor&) {};
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
      {0.3, 1000, kept, ahead, audioFirst},
      {-0.3, 1000, withPriming, {}, audioFirst},
      {0.3, fine, kept, wide},
      {-0.3, fine, withPriming, wide},
      {0.3, 1000, kept, {}, videoFirst, moveEditListsToTrackEnds},
      {-0.3, 1000, withPriming, {}, audioFirst, moveEditListsToTrackEnds},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(
        fmt::format("case {}, audio late by {} s, {} ticks per second", &c - cases, c.audioLate, c.movieTimescale));
    auto arguments = c.muxerArguments;
    arguments.insert(arguments.end(), {"-movie_timescale", std::to_string(c.movieTimescale)});
    BoxEditor clip(readFile(files_, flashBeepClip(c.audioLate, arguments, c.tracks)));
    c.edit(clip);
    write(clip.bytes);
    const double tolerance = 1.0 / c.movieTimescale + 0.001;
    const double source = beepAfterFlash();
    EXPECT_NEAR(source, c.audioLate, 2 * tolerance) << "the clip is not what it should be";
    const std::string samples = mediaHashes(file_);

    fix();
    const double measured = beepAfterFlash();
    EXPECT_NEAR(measured, c.outcome == kept ? source : c.outcome == dropped ? 0 : source - priming, tolerance);
    EXPECT_EQ(mediaHashes(file_), samples);

    const Bytes once = written();
    fix();
    if (c.outcome == withPriming) {
      EXPECT_NEAR(beepAfterFlash(), measured - priming, tolerance) << "each pass counts the priming again";
    } else {
      EXPECT_EQ(written(), once) << "a second pass changes nothing";
    }
  }
}

}  // namespace
}  // namespace tarn::test
