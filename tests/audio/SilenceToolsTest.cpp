#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <set>

#include "audio/AudioFades.h"
#include "audio/CMSampleBufferHelpers.h"
#include "audio/NoiseTable.h"
#include "audio/PCMBufferPool.h"
#include "support/LogCapture.h"
#include "support/PCM.h"

namespace tarn::test {
namespace {

/// Half a turn in n steps.
const auto cosineAt = [](double i, double n) { return std::cos(std::numbers::pi * i / n); };

TEST(ShapedSilence, LeadsFromOneNeighbourThroughNoiseToTheOther) {
  const struct {
    int64_t frames;
    SilenceShape shape;
    double loudest;  // of the noise
    int channels = 2;
  } rows[] = {
      {48000, {1440, true, 0.001, -12000, 9000}, 32},  {48000, {1440, true, 0.001, 0, 1000}, 32},
      {6000, {1440, true, 0.5, -32768, 32767}, 16384}, {6000, {1440, true, 0, 20000, -20000}, 0},
      {2881, {1440, false, 0.001, 30000, 1}, 0},       {5000, {0, true, 0.001, 700, 700}, 32},
      {7, {1440, false, 0, -32768, 32767}, 0, 1},      {1, {1440, true, 0.001, 500, 500}, 32},
  };
  for (const auto& [frames, shape, loudest, channels] : rows) {
    SCOPED_TRACE(frames);
    const auto silence =
        makeShapedSilenceBuffer(frames, shape, {}, createPCMFormatDescription(48000, channels), channels, 48000);
    ASSERT_TRUE(silence);
    EXPECT_EQ(silence->duration.seconds(), static_cast<double>(frames) / 48000);
    const Samples samples = samplesOf(*silence);
    ASSERT_EQ(samples.size(), static_cast<size_t>(frames * channels));
    const double ramp = static_cast<double>(std::min(shape.rampFrames, frames / 2)), end = static_cast<double>(frames);
    std::set<int> noise;
    for (size_t k = 0; k < samples.size(); ++k) {
      const double i = static_cast<double>(k / static_cast<size_t>(channels)), left = i - (end - ramp);
      double pure = 0, swell = 1;  // the noise comes over the last fifth of the way down, and goes over the first up
      if (i < ramp) {
        pure = (1 + cosineAt(i, ramp)) / 2 * shape.lastSampleValue;
        swell = shape.lastSampleValue == 0 ? 0 : std::max((i / ramp - 0.8) / 0.2, 0.0);
      } else if (left >= 0) {
        pure = (1 - cosineAt(left, ramp)) / 2 * shape.nextSampleValue;
        swell = shape.nextSampleValue == 0 ? 0 : std::max(1 - left / ramp / 0.2, 0.0);
      } else {
        noise.insert(samples[k] - samples[k ^ 1]);  // each channel has its own
      }
      ASSERT_NEAR(samples[k], pure, 1 + swell * loudest) << k;
    }
    if (frames < 1000) continue;
    EXPECT_GE(noise.size(), std::min(2 * loudest, 1000.0));
    EXPECT_GE(*noise.rbegin(), 1.8 * loudest - 1) << "the table fills the range";
  }
}

TEST(AudioFades, FollowThePlainReference) {
  for (int frames : {1, 2, 3, 1439, 1440, 1441, 8192}) {
    Samples source(static_cast<size_t>(frames) * 2);
    for (size_t i = 0; i < source.size(); ++i) source[i] = static_cast<int16_t>(i % 3 == 0 ? 32767 : 7 * i - 32768);
    Samples in = source, out = source;
    const int n = std::min(1440, frames);
    for (int i = 0; n >= 2 && i < 2 * n; ++i) {
      const auto head = static_cast<size_t>(i), tail = static_cast<size_t>(2 * (frames - n) + i);
      in[head] = static_cast<int16_t>(std::lround((1 - cosineAt(i / 2, n - 1)) / 2 * source[head]));
      out[tail] = static_cast<int16_t>(std::lround((cosineAt(i / 2, n - 1) + 1) / 2 * source[tail]));
    }
    auto buffer = pcmBuffer(source, 2);
    applyFadeIn(buffer, 1440);
    EXPECT_EQ(samplesOf(buffer), in) << frames;
    buffer = pcmBuffer(source, 2);
    applyFadeOut(buffer, 1440);
    EXPECT_EQ(samplesOf(buffer), out) << frames;
  }
}

TEST(PCMBuffers, LoseFramesAtTheHead) {
  const std::pair<int64_t, Samples> rows[] = {{-1, {1, 2, 3, 4}}, {0, {1, 2, 3, 4}}, {1, {3, 4}}, {2, {}}, {3, {}}};
  for (const auto& [frames, left] : rows) {
    auto buffer = pcmBuffer(Samples{1, 2, 3, 4}, 2);
    dropFramesFromHead(buffer, frames);
    EXPECT_EQ(samplesOf(buffer), left) << frames;
  }
}

TEST(PCMBuffers, AreUsedAgainWhereTheyFitAndKeepNothingOfTheirUse) {
  const AVAudioFormat stereo{48000, 2};
  const Samples samples{1, -2, 3, -4, 5, -6};
  auto buffer = sampleBuffer(samples, 2);
  for (auto [room, capacity] : {std::pair(100u, 100u), {2u, 3u}}) {
    const auto copy = toAVAudioPCMBuffer(buffer, stereo, AVAudioPCMBuffer(stereo, room));
    EXPECT_EQ(copy->frameCapacity(), capacity);
    EXPECT_EQ(samplesOf(*copy), samples);
  }
  // One of the pool may have fewer channels, and holds what it was used for.
  PCMBufferPool::shared().returnBuffer(pcmBuffer(Samples{9, 9, 9}, 1));
  EXPECT_EQ(samplesOf(*toAVAudioPCMBuffer(buffer, stereo)), samples);
  PCMBufferPool::shared().returnBuffer(pcmBuffer(Samples{9, 9, 9, 9, 9, 9}, 2));
  buffer.dataBuffer = std::make_shared<const CMBlockBuffer>(Bytes{1, 0});
  EXPECT_EQ(samplesOf(*toAVAudioPCMBuffer(buffer, stereo)), (Samples{1, 0, 0, 0, 0, 0}));
}

TEST(PCMBuffers, WhatCannotBeMadeIsNothing) {
  const auto format = createPCMFormatDescription(48000, 2);
  constexpr int64_t endless = int64_t{1} << 60;
  const LogCapture log;
  EXPECT_FALSE(createPCMFormatDescription(0, 2));
  EXPECT_FALSE(makeSilenceSampleBuffer(endless, {}, format, 2, 48000));
  EXPECT_FALSE(makeShapedSilenceBuffer(endless, {}, {}, format, 2, 48000));
  for (int64_t frames : {int64_t{5}, endless}) {
    CMSampleBuffer noData;
    noData.numSamples = frames;
    EXPECT_FALSE(toAVAudioPCMBuffer(noData, {48000, 2}));
  }
  EXPECT_FALSE(pcmBufferToCMSampleBuffer(AVAudioPCMBuffer({48000, 2}, 8), format, {}, 48000));
  EXPECT_TRUE(log.contains("CMSampleBufferHelpers: No data buffer in sample buffer"));
  EXPECT_EQ(log.lines().size(), 5u) << "an empty buffer is no failure";
}

}  // namespace
}  // namespace tarn::test
