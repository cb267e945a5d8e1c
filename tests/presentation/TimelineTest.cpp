#include <fmt/format.h>
#include <gtest/gtest.h>

#include "presentation/Timeline.h"
#include "support/BoxBuilder.h"
#include "support/FileTest.h"
#include "support/SyntheticMovie.h"

namespace tarn::test {
namespace {

using Edits = std::vector<std::pair<uint64_t, int64_t>>;

/// Ten seconds of pictures.
SyntheticTrack pictures(const Edits& edits = {}) {
  return {.handler = "vide",
          .timescale = 1000,
          .sampleEntry = visualSampleEntry("avc1"),
          .stts = {{250, 40}},
          .edits = edits,
          .samples = 250};
}

/// Packets of 20 ms, as these rows lay them.
SyntheticTrack sound(const std::vector<std::pair<uint32_t, uint32_t>>& rows, const Edits& edits = {}) {
  SyntheticTrack track{.timescale = 50000, .stts = rows, .edits = edits, .trackID = 2};
  for (const auto& [count, delta] : rows) track.samples += count;
  return track;
}

class TimelineTest : public FileTest {
 protected:
  /// "0.00-10.00 | 0.00-2.00 2.50-10.00 | 0.00 0.50"
  std::string told(const SyntheticTrack& video, const SyntheticTrack& audio, SoundHoles holes = SoundHoles::shown) {
    const auto timeline = readTimeline(files_, write(syntheticMovie({video, audio})), holes);
    if (!timeline) return "nothing";
    std::string words;
    for (const auto* spans : {&timeline->video, &timeline->audio}) {
      for (const auto& span : *spans) words += fmt::format("{:.2f}-{:.2f} ", span.start, span.end);
      words += "| ";
    }
    if (!timeline->soundBehindAtStart) return words;
    return words + fmt::format("{:.2f} {:.2f}", *timeline->soundBehindAtStart, *timeline->soundBehindAtEnd);
  }
};

TEST_F(TimelineTest, TellsWhereThereArePicturesAndSound) {
  const auto gap = sound({{99, 1000}, {1, 26000}, {400, 1000}});
  EXPECT_EQ(told(pictures(), gap), "0.00-10.00 | 0.00-2.00 2.50-10.50 | 0.00 0.50");
  EXPECT_EQ(told(pictures(), gap, SoundHoles::filled), "0.00-10.00 | 0.00-10.50 | 0.00 0.50");
  // A packet that is a little late is no hole, nor is what recorders add to the first one, nor a long last one.
  EXPECT_EQ(told(pictures(), sound({{1, 12000}, {200, 1000}, {1, 3000}, {287, 1000}, {1, 26000}})),
            "0.00-10.00 | 0.00-10.56 | 0.00 0.56");
  // What edit lists delay, cut out and leave empty.
  EXPECT_EQ(told(pictures({{500, -1}, {10000, 0}}),
                 sound({{500, 1000}}, {{1000, -1}, {2000, 0}, {1000, -1}, {3000, 200000}})),
            "0.50-10.50 | 1.00-3.00 4.00-7.00 | 0.50 -3.50");
  // The gap lies in a part that is not shown, and in one that is shown twice.
  EXPECT_EQ(told(pictures(), sound({{99, 1000}, {1, 26000}, {400, 1000}}, {{1000, 0}, {4000, 150000}, {4000, 50000}})),
            "0.00-10.00 | 0.00-6.00 6.50-9.00 | 0.00 -1.00");
  SyntheticTrack none = sound({{1, 1000}});
  none.handler = "text";
  EXPECT_EQ(told(pictures(), none), "0.00-10.00 | | ");
  EXPECT_EQ(told(none, sound({{100, 1000}})), "| 0.00-2.00 | ");
}

/// A file may hold a million gaps; a summary is small.
TEST_F(TimelineTest, TellsTheLargestHolesOfMany) {
  std::vector<std::pair<uint32_t, uint32_t>> rows;
  for (uint32_t i = 0; i < 2000; ++i) rows.insert(rows.end(), {{9, 1000}, {1, i == 1000 ? 90000 : 5000 + i}});
  const auto timeline = readTimeline(files_, write(syntheticMovie({pictures(), sound(rows)})));
  ASSERT_TRUE(timeline);
  EXPECT_EQ(timeline->audio.size(), 500U);
  EXPECT_TRUE(std::ranges::any_of(timeline->audio, [&](const auto& span) {
    const auto* next = &span + 1;
    return next != timeline->audio.data() + timeline->audio.size() && next->start - span.end > 1.7;
  }));
  // Behind the millionth, all counts as sound.
  SyntheticTrack more = sound({{1'200'000, 1000}, {1'100'000, 5000}});
  more.samplesPerChunk = more.samples;
  EXPECT_EQ(told(pictures(), more), "0.00-10.00 | 0.00-134000.00 | 0.00 133990.00");
  EXPECT_FALSE(readTimeline(files_, write(Bytes(100))));
}

}  // namespace
}  // namespace tarn::test
