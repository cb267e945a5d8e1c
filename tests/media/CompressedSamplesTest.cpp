#include <fmt/format.h>
#include <gtest/gtest.h>

#include "support/BoxEditor.h"
#include "support/Clip.h"
#include "support/FailureOf.h"
#include "support/SyntheticMovie.h"

namespace tarn::test {
namespace {

/// What comes of a track up to where its stream ends, or breaks off with the failure.
struct Walk {
  size_t count = 0;
  std::string text;  ///< "start+duration:" of the track in seconds, then each buffer: "index@time+duration" in ticks of
                     ///< the track, and behind a slash what is trimmed at start and end
  std::string failure;
};
Walk walk(const Clip& clip, AVMediaType type = AVMediaType::audio) {
  const AVAssetTrack track = clip.track(type);
  const auto timescale = static_cast<int32_t>(track.naturalTimeScale);
  const double start = track.timeRange.start.seconds(), duration = track.timeRange.duration.seconds();
  EXPECT_DOUBLE_EQ(clip.asset.duration().seconds(), start + duration);
  Walk result;
  result.text = fmt::format("{}+{}:", start, duration);
  result.failure = failureOf([&] {
    for (const auto source = clip.samples(type); const auto buffer = source->next(); ++result.count) {
      EXPECT_EQ(buffer->presentationTimeStamp.timescale, timescale);
      result.text += fmt::format(" {}@{}+{:g}", buffer->sampleIndex, buffer->presentationTimeStamp.value,
                                 buffer->duration.seconds() * timescale);
      const int64_t atStart = buffer->trimDurationAtStart.value, atEnd = buffer->trimDurationAtEnd.value;
      if (atStart != 0 || atEnd != 0) result.text += fmt::format("/{},{}", atStart, atEnd);
    }
  });
  return result;
}

TEST(CompressedSamples, FollowTheTimelineOfTheEditsWithTheirCodedDurations) {
  using Edits = std::vector<std::pair<uint64_t, int64_t>>;  // in ticks of the movie, of which there are 500 a second
  using Offsets = std::vector<std::pair<uint32_t, int32_t>>;
  using Deltas = std::vector<std::pair<uint32_t, uint32_t>>;
  const auto pictures = [](const Edits& edits, const Offsets& offsets = {}) {
    return SyntheticTrack{.handler = "vide",
                          .timescale = 1000,
                          .stts = {{5, 100}},
                          .ctts = offsets,
                          .edits = edits,
                          .samples = 5,
                          .mediaDuration = 500};
  };
  const auto sound = [](const Deltas& stts, const Bytes& entry, uint32_t timescale = 48000, const Edits& edits = {}) {
    SyntheticTrack track{.timescale = timescale, .sampleEntry = entry, .stts = stts, .edits = edits};
    for (auto [count, delta] : stts) track.samples += count;
    return track;
  };
  const Bytes lc48 = aacSampleEntry(48000, 2, {0x11, 0x90}), lc24 = aacSampleEntry(24000, 2, {0x13, 0x10});
  const Bytes he24 = aacSampleEntry(48000, 2, {0x2B, 0x11, 0x88, 0x00}), opus = audioSampleEntry("Opus", 48000, 2);
  const Offsets late = {{1, 100}, {1, 300}, {2, 0}, {1, 100}}, early = {{2, -150}};
  SyntheticTrack longTimes = pictures({{uint64_t{1} << 33, -1}, {50, 400}});
  longTimes.longTimes = true;
  const std::pair<SyntheticTrack, const char*> rows[] = {
      {pictures({}), "0+0.5: 0@0+100 1@100+100 2@200+100 3@300+100 4@400+100"},
      {pictures({{10, -1}, {20, -1}, {100, 300}}), "0.06+0.2: 3@60+100 4@160+100"},
      {pictures({{60, 150}}), "0+0.12: 1@-50+100/50,0 2@50+100/0,30"},
      {pictures({{50, 300}, {25, -1}, {75, 0}}), "0+0.25: 3@0+100 0@150+100 1@250+100/0,50"},
      {pictures({{0, 400}, {50, 0}}), "0+0.2: 4@0+100 0@100+100"},
      {longTimes, "17179869.184+0.1: 4@17179869184+100"},
      {pictures({{100, -50}}), "0+0.2: 0@50+100 1@150+100/0,50"},
      {pictures({{100, -1}}), "0.2+0:"},
      {pictures({}, late), "0+0.5: 0@100+100 1@400+100 2@200+100 3@300+100 4@500+100"},
      {pictures({}, early), "0+0.5: 0@-150+100 1@-50+100 2@200+100 3@300+100 4@400+100"},
      {pictures({{50, -150}}, early), "0+0.1: 0@0+100"},
      // A packet of AAC has its nominal length, before a hole, an overlap or a coarse clock; the last is no longer.
      {sound({{1, 1024}, {1, 5000}, {1, 1024}}, lc48), "0+0: 0@0+1024 1@1024+1024 2@6024+1024"},
      {sound({{1, 500}, {2, 1024}}, lc48), "0+0: 0@0+1024 1@500+1024 2@1524+1024"},
      {sound({{1, 1024}, {1, 100}}, lc48), "0+0: 0@0+1024 1@1024+100"},
      {sound({{1, 21}, {1, 22}}, lc48, 1000), "0+0: 0@0+21.3333 1@21+21.3333"},
      // 2048 samples at twice the rate, whether SBR or not: what the packet really lasts.
      {sound({{2, 1024}}, lc24, 24000), "0+0: 0@0+1024 1@1024+1024"},
      {sound({{2, 2048}}, he24), "0+0: 0@0+2048 1@2048+2048"},
      {sound({{1, 960}, {1, 480}}, opus), "0+0: 0@0+960 1@960+480"},
      // An edit that ends in the hole behind a packet takes nothing of the packet.
      {sound({{1, 1024}, {1, 5000}}, lc48, 48000, {{25, 500}}), "0+0.05: 0@-500+1024/500,0 1@524+1024"},
  };
  for (const auto& [track, text] : rows) {
    const Walk result =
        walk(Clip(syntheticMovie({track}, 500)), track.handler == "vide" ? AVMediaType::video : AVMediaType::audio);
    EXPECT_EQ(result.text + result.failure, text);
  }
}

TEST(CompressedSamples, DamageEndsTheStreamOrIsRefused) {
  const std::string stbl = "moov/trak/mdia/minf/stbl", mdhd = "moov/trak/mdia/mdhd";
  const struct {
    const char* name;
    std::string box;
    std::vector<std::pair<size_t, uint32_t>> fields;  // place in the box, and what stands there now
    size_t buffers;
    std::string failure;
  } cases[] = {
      {"equal samples that are too large", stbl + "/stsz", {{12, 1 << 20}}, 0, "Sample 0 does not lie in the file"},
      {"without end", stbl + "/stsz", {{12, 1}, {16, UINT32_MAX}}, 12, "Sample 12 does not lie in the file"},
      {"stts is short", stbl + "/stts", {{16, 4}}, 10, ""},
      {"stts is empty", stbl + "/stts", {{16, 0}}, 0, "stts names no sample"},
      {"chunks are few", stbl + "/stco", {{12, 2}}, 8, "Sample 8 does not lie in the file"},
      {"a description that is not there", stbl + "/stsc", {{24, 7}}, 10, ""},
      {"a timescale beyond 31 bits", mdhd, {{20, UINT32_MAX}}, 0, "The track has no timescale"},
      {"no movie timescale", "moov/mvhd", {{20, 0}}, 0, "elst without a timescale"},
  };
  const Bytes movie = syntheticMovie({{.stts = {{10, 1024}}, .ctts = {{10, 0}}, .edits = {{0, 0}}, .samples = 10}});
  for (const auto& c : cases) {
    BoxEditor editor(movie);
    for (const auto& [place, value] : c.fields) editor.setField(BoxEditor(movie).at(c.box).offset + place, value);
    const Clip clip(editor.bytes);
    const Walk result = walk(clip);
    if (c.failure.starts_with("Sample")) {
      EXPECT_THROW(clip.samples()->data(static_cast<int64_t>(c.buffers)), Error) << c.name;
    }
    EXPECT_EQ(result.count, c.buffers) << c.name;
    EXPECT_TRUE(result.failure.starts_with(c.failure)) << c.name << ": " << result.failure;
  }
}

TEST(CompressedSamples, EditsThatRepeatWithoutEndAreRefused) {
  SyntheticTrack sound{.stts = {{100'000, 1024}}, .samples = 100'000};
  sound.edits.assign(1000, {0, 0});
  EXPECT_EQ(walk(Clip(syntheticMovie({sound}))).failure, "elst shows the media too often");
  sound.edits.resize(3);
  EXPECT_EQ(walk(Clip(syntheticMovie({sound}))).count, 300'000u);
}

}  // namespace
}  // namespace tarn::test
