#include <gtest/gtest.h>

#include <array>
#include <span>

#include "audio/CMSampleBufferHelpers.h"
#include "audio/transcode/TranscodeLoop.h"
#include "support/PCM.h"

namespace tarn::test {
namespace {

constexpr int64_t bufferFrames = 8192;
constexpr int16_t loud = 10000;

/// Keeps what comes out, and sees that it runs on without a break.
struct Recorder : PCMSink {
  std::vector<int64_t> lengths;
  Samples samples;

  void append(const CMSampleBuffer& buffer) override {
    EXPECT_EQ(buffer.presentationTimeStamp.seconds(), static_cast<double>(samples.size()) / 48000);
    lengths.push_back(buffer.numSamples);
    const Samples more = samplesOf(buffer);
    samples.insert(samples.end(), more.begin(), more.end());
  }
};

/// So many mono buffers of one value go through the loop, at these times of the source, or else one after the other.
std::pair<Recorder, AudioTranscodingState> play(const TranscodePlan& plan, size_t buffers,
                                                const std::vector<CMTime>& times = {}, bool fades = true) {
  const TranscodeConfig config{.channels = 1, .enableFadeSmoothing = fades};
  const AudioNormalizer normalizer({.channels = 1});
  CMSampleBuffer buffer = sampleBuffer(Samples(bufferFrames, loud), 1);
  Recorder recorder;
  TranscodeLoop loop(plan, config, normalizer, recorder);
  for (size_t i = 0; i < buffers && !loop.capReached(); ++i) {
    buffer.presentationTimeStamp =
        times.empty() ? CMTime::make(static_cast<int64_t>(i) * bufferFrames, 48000) : times[i];
    loop.process(buffer);
  }
  loop.finish();
  return {recorder, loop.state()};
}

const auto gap = [](int64_t at, double seconds) { return AudioGap{{}, CMTime::makeWithSeconds(seconds), 0, at}; };
const auto overlap = [](int64_t at, int64_t frames) { return AudioOverlap{{}, frames, 0, at}; };

TEST(TranscodeLoop, LaysTheBuffersOutAsThePlanSays) {
  using Lengths = std::vector<int64_t>;
  using Counts = std::array<int64_t, 4>;  // frames of silence, frames dropped, gaps, overlaps
  struct {
    const char* what;
    TranscodePlan plan;
    size_t buffers;
    Lengths lengths;
    Counts counts = {};
  } const cases[] = {
      {"no audio", {}, 0, {}},
      {"a late start", {.gaps = {gap(0, 0.3)}}, 2, {14400, 8192, 8192}, {14400, 0, 1}},
      {"a gap inside goes before its buffer", {.gaps = {gap(8191, 0.1)}}, 2, {4800, 8192, 8192}, {4800, 0, 1}},
      {"a long gap", {.gaps = {gap(8192, 2.5)}}, 2, {8192, 48000, 48000, 24000, 8192}, {120000, 0, 1}},
      {"an overlap", {.overlaps = {overlap(8192, 1000)}}, 2, {8192, 7192}, {0, 1000, 0, 1}},
      {"both", {.gaps = {gap(99, 0.1)}, .overlaps = {overlap(99, 50)}}, 2, {4800, 8192, 8192}, {4800, 0, 1, 0}},
      {"a cap inside a buffer", {.cap = 0.25, .expectedSamples = 12000}, 9, {8192, 3808}},
      {"a cap at a buffer's end", {.cap = 8192 / 48000.0, .expectedSamples = 8192}, 9, {8192}},
      {"a cap less than a frame after it", {.cap = 8192.5 / 48000, .expectedSamples = 8192}, 9, {8192}},
      {"a cap that binary fractions miss",
       {.cap = 24736 / 48000.0, .expectedSamples = 24736},
       9,
       {8192, 8192, 8192, 160}},
      {"a cap in silence", {.gaps = {gap(8192, 1)}, .cap = 0.5}, 9, {8192, 15808}, {15808, 0, 1}},
      {"a cap in the last buffer", {.cap = 0.3, .expectedSamples = 14400}, 2, {8192, 6208}},
      {"a pad", {.expectedSamples = 8192 + 4096}, 1, {8192, 4096}, {4096}},
      {"a pad up to the cap", {.cap = 0.25, .expectedSamples = 12000}, 1, {8192, 3808}, {3808}},
      {"too much for a pad", {.expectedSamples = 8192 + 4097}, 1, {8192}},
      {"more than expected", {.expectedSamples = 8191}, 1, {8192}},
  };
  for (const auto& c : cases) {
    const auto [output, state] = play(c.plan, c.buffers);
    EXPECT_EQ(output.lengths, c.lengths) << c.what;
    EXPECT_EQ(state.samplesProcessed, static_cast<int64_t>(output.samples.size())) << c.what;
    const Counts counts{state.silenceInserted, state.framesDropped, state.gapsDetected, state.overlapsDetected};
    EXPECT_EQ(counts, c.counts) << c.what;
  }
}

TEST(TranscodeLoop, FadesAroundSilenceAndCuts) {
  // A fade of 1440 frames over this value has no step above 11, the noise none above 63.
  const TranscodePlan plan{.gaps = {gap(16384, 2.5)}, .overlaps = {overlap(8192, 777)}, .cap = 2.9};
  const Samples faded = play(plan, 10).first.samples;
  ASSERT_NEAR(static_cast<double>(faded.size()), 2.9 * 48000, 1);
  const size_t silenceEnd = 2 * 8192 - 777 + 120000;
  const std::span<const int16_t> all(faded);
  EXPECT_LT(largestStep(all.first(silenceEnd), 1), 70);
  EXPECT_LT(largestStep(all.subspan(silenceEnd), 1), 12);
  EXPECT_EQ(faded.front(), loud);
  EXPECT_EQ(std::ranges::count(all.subspan(2 * 8192 - 777, 1440), 0), 1440) << "behind a fade the noise waits";
  for (size_t silent : std::initializer_list<size_t>{8191, 8192, 2 * 8192 - 777 - 1, silenceEnd, faded.size() - 1}) {
    EXPECT_EQ(faded[silent], 0) << silent;
  }
  EXPECT_NEAR(faded[silenceEnd - 1], loud, 12) << "the silence rises to the audio as it was decoded";
  EXPECT_LT(largestStep(play({.gaps = {gap(8192, 2.5)}}, 2, {}, false).first.samples, 1), 70) << "and falls from it";

  EXPECT_EQ(play({.cap = 24736 / 48000.0}, 10).first.samples.back(), 0) << "what is cut short fades too";
}

TEST(TranscodeLoop, RunsOnWithoutABreakWhateverTimesTheSourceTells) {
  const TranscodePlan plan{.gaps = {{{}, {}, 7, 32768}}, .firstPTS = CMTime::make(1, 1)};
  const std::vector<CMTime> times = {CMTime::make(1, 1), CMTime::make(3, 2), {}, CMTime::make(5, 4)};
  EXPECT_EQ(play(plan, 4, times).first.samples.size(), 32768u);
}

}  // namespace
}  // namespace tarn::test
