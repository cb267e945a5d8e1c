#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <set>

#include "audio/CMSampleBufferHelpers.h"
#include "audio/transcode/NoiseTable.h"
#include "audio/transcode/PCMBufferPool.h"
#include "support/LogCapture.h"
#include "support/PCM.h"

namespace tarn::test {
namespace {

TEST(ShapedSilence, LeadsFromOneNeighbourThroughNoiseToTheOther) {
  const struct {
    int64_t frames;
    SilenceShape shape;
    int loudest;  // of the noise
    int channels = 2;
  } rows[] = {
      {48000, {1440, true, 0.001, -12000, 9000}, 32},  {48000, {1440, true, 0.001, 0, 1000}, 32},
      {6000, {1440, true, 0.5, -32768, 32767}, 16384}, {2881, {1440, false, 0.001, 30000, 1}, 0},
      {5000, {0, true, 0.001, 700, 700}, 32},          {7, {1440, false, 0, -32768, 32767}, 0, 1},
      {1, {1440, true, 0.001, 500, 500}, 32},
  };
  for (const auto& [frames, shape, loudest, channels] : rows) {
    SCOPED_TRACE(frames);
    const auto silence =
        makeShapedSilenceBuffer(frames, shape, {}, createPCMFormatDescription(48000, channels), channels, 48000);
    ASSERT_TRUE(silence);
    EXPECT_EQ(silence->duration.seconds(), static_cast<double>(frames) / 48000);
    const Samples samples = samplesOf(*silence);
    ASSERT_EQ(samples.size(), static_cast<size_t>(frames * channels));
    const auto ramp = static_cast<size_t>(std::min(shape.rampFrames, frames / 2) * channels);
    std::set<int> noise;
    for (size_t k = ramp; k < samples.size() - ramp; ++k) {
      ASSERT_LE(std::abs(samples[k]), loudest + 1) << k;
      noise.insert(samples[k] - samples[k ^ 1]);  // each channel has its own
    }
    if (ramp > 0) {
      const int steepest = static_cast<int>(65536 * 1.6) / static_cast<int>(ramp) * channels / 2;
      EXPECT_LE(largestStep(samples, static_cast<size_t>(channels)), steepest + 2 * loudest + 2);
      EXPECT_EQ(samples.front(), shape.lastSampleValue);
      EXPECT_NEAR(samples.back(), shape.nextSampleValue, steepest);
    }
    if (frames < 5000) continue;
    EXPECT_GE(noise.size(), std::min(2U * static_cast<unsigned>(loudest), 1000U));
    EXPECT_GE(*noise.rbegin(), 1.8 * loudest - 1) << "the table fills the range";
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
  const LogCapture quiet;
  EXPECT_FALSE(createPCMFormatDescription(0, 2));
  EXPECT_FALSE(makeSilenceSampleBuffer(endless, {}, format, 2, 48000));
  EXPECT_FALSE(makeShapedSilenceBuffer(endless, {}, {}, format, 2, 48000));
  for (int64_t frames : {int64_t{5}, endless}) {
    CMSampleBuffer noData;
    noData.numSamples = frames;
    EXPECT_FALSE(toAVAudioPCMBuffer(noData, {48000, 2}));
  }
  EXPECT_FALSE(pcmBufferToCMSampleBuffer(AVAudioPCMBuffer({48000, 2}, 8), format, {}, 48000));
}

}  // namespace
}  // namespace tarn::test
