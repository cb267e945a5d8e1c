#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>

#include "audio/NoiseTable.h"
#include "audio/PCM.h"
#include "audio/PCMBufferPool.h"
#include "support/LogCapture.h"

namespace tarn {
namespace {

using namespace test;

/// The shape told frame by frame.
Samples reference(int64_t frames, const SilenceShape& shape, int channels, NoiseTable noiseTable) {
  const int64_t ramp = std::min(shape.rampFrames, frames / 2);
  const int amplitude = static_cast<int>(shape.noiseLevel * 32767);
  auto noise = [&] { return noiseTable.draw() * amplitude >> 15; };
  auto clamped = [](int value) { return static_cast<int16_t>(std::clamp(value, -32768, 32767)); };
  Samples samples;
  for (int64_t frame = 0; frame < frames; ++frame) {
    const bool isHead = frame < ramp;
    const bool isTail = frame >= frames - ramp;
    if (!isHead && !isTail) {
      for (int i = 0; i < channels; ++i) samples.push_back(shape.useComfortNoise ? clamped(noise()) : int16_t{0});
      continue;
    }
    const double p = static_cast<double>(isHead ? frame : frame - (frames - ramp)) / static_cast<double>(ramp);
    const int neighbour = isHead ? shape.lastSampleValue : shape.nextSampleValue;
    const double cosine = std::cos(std::numbers::pi * p);
    int value = static_cast<int>((isHead ? cosine + 1 : 1 - cosine) / 2 * neighbour);
    if (neighbour != 0 && shape.useComfortNoise && isHead && p > 0.8)
      value += static_cast<int>((p - 0.8) / 0.2 * noise());
    if (neighbour != 0 && shape.useComfortNoise && isTail && p < 0.2)
      value += static_cast<int>((1 - p / 0.2) * noise());
    samples.insert(samples.end(), static_cast<size_t>(channels), clamped(value));
  }
  return samples;
}

TEST(ShapedSilence, FollowsThePlainReference) {
  struct Case {
    int64_t frames;
    SilenceShape shape;
    int channels = 2;
  } cases[] = {
      {1, {1440, true, 0.001, 500, 500}},        {7, {1440, true, 0.5, -32768, 32767}, 1},
      {2881, {1440, true, 0.001, -12000, 9000}}, {2881, {1440, false, 0.001, 30000, 1}},
      {48000, {1440, true, 0.001, 0, 1000}},     {48000, {0, true, 0.001, 700, 700}},
      {5000, {0, false, 0.001, 700, 700}},       {6000, {1440, true, 0, 20000, -20000}},
      {6000, {1440, true, 1.5, 32767, -32768}},
  };
  NoiseTable::shared() = NoiseTable(7);
  const CMFormatDescriptionPointer formats[] = {createPCMFormatDescription(48000, 1),
                                                createPCMFormatDescription(48000, 2)};
  for (const auto& [frames, shape, channels] : cases) {
    SCOPED_TRACE(frames);
    const NoiseTable before = NoiseTable::shared();  // each silence goes on where the one ahead stopped
    auto silence = makeShapedSilenceBuffer(frames, shape, CMTime::make(5, 1), formats[channels - 1], channels, 48000);
    ASSERT_TRUE(silence);
    EXPECT_EQ(silence->numSamples, frames);
    EXPECT_EQ(silence->presentationTimeStamp.seconds(), 5);
    EXPECT_EQ(silence->duration.seconds(), static_cast<double>(frames) / 48000);
    EXPECT_EQ(samplesOf(*silence), reference(frames, shape, channels, before));
  }
}

TEST(ShapedSilence, NoiseIsFaintDiffersBetweenChannelsAndRunsAndComesRound) {
  NoiseTable first, second, again = first;
  Samples drawn, other;
  for (size_t i = 0; i < NoiseTable::size; ++i) drawn.push_back(first.draw());
  for (size_t i = 0; i < NoiseTable::size; ++i) other.push_back(second.draw());
  EXPECT_NE(drawn, other);
  for (int16_t value : drawn) ASSERT_EQ(first.draw(), value);
  EXPECT_EQ(again.draw(), drawn[0]);
  EXPECT_LT(*std::ranges::min_element(drawn), -30000) << "the whole range";
  EXPECT_GT(*std::ranges::max_element(drawn), 30000);

  auto silence = makeShapedSilenceBuffer(4096, {0, true, 0.001}, {}, createPCMFormatDescription(48000, 2), 2, 48000);
  auto samples = samplesOf(*silence);
  EXPECT_EQ(*std::ranges::min_element(samples), -32);
  EXPECT_EQ(*std::ranges::max_element(samples), 31);
  int different = 0;
  for (size_t i = 0; i < samples.size(); i += 2) different += samples[i] != samples[i + 1];
  EXPECT_GT(different, 3500);
}

TEST(PCMBuffers, GoToSampleBuffersAndBack) {
  auto format = createPCMFormatDescription(48000, 2);
  const Samples samples{1, -2, 3, -4, 5, -6};
  auto sampleBuffer = pcmBufferToCMSampleBuffer(pcmBuffer(samples, 2), format, CMTime::make(1, 2), 48000);
  ASSERT_TRUE(sampleBuffer);
  EXPECT_EQ(sampleBuffer->numSamples, 3);

  EXPECT_EQ(samplesOf(*toAVAudioPCMBuffer(*sampleBuffer, {48000, 2})), samples);
  auto reused = toAVAudioPCMBuffer(*sampleBuffer, {48000, 2}, AVAudioPCMBuffer({48000, 2}, 100));
  EXPECT_EQ(reused->frameCapacity(), 100u);
  EXPECT_EQ(samplesOf(*reused), samples);
  EXPECT_EQ(toAVAudioPCMBuffer(*sampleBuffer, {48000, 2}, AVAudioPCMBuffer({48000, 2}, 2))->frameCapacity(), 3u);

  // A buffer that was used before keeps nothing of that; one of the same capacity may have fewer channels.
  PCMBufferPool::shared().returnBuffer(pcmBuffer({9, 9, 9, 9}, 2));
  CMSampleBuffer shortOfData = *sampleBuffer;
  shortOfData.numSamples = 2;
  shortOfData.dataBuffer = std::make_shared<const CMBlockBuffer>(Bytes{1, 0});
  EXPECT_EQ(samplesOf(*toAVAudioPCMBuffer(shortOfData, {48000, 2})), (Samples{1, 0, 0, 0}));
  PCMBufferPool::shared().returnBuffer(pcmBuffer({9, 9, 9}, 1));
  EXPECT_EQ(samplesOf(*toAVAudioPCMBuffer(*sampleBuffer, {48000, 2})), samples);
}

TEST(PCMBuffers, WhatCannotBeMadeIsNothingAndSaysWhy) {
  auto format = createPCMFormatDescription(48000, 2);
  const int64_t tooMany = int64_t{1} << 60;
  CMSampleBuffer noData, endless;
  noData.numSamples = 5;
  endless.numSamples = tooMany;
  LogCapture log;
  EXPECT_FALSE(createPCMFormatDescription(0, 2));
  EXPECT_FALSE(makeSilenceSampleBuffer(tooMany, {}, format, 2, 48000));
  EXPECT_FALSE(makeSilenceSampleBuffer(5, {}, nullptr, 2, 48000));
  EXPECT_FALSE(makeShapedSilenceBuffer(tooMany, {}, {}, format, 2, 48000));
  EXPECT_FALSE(makeShapedSilenceBuffer(5, {}, {}, nullptr, 2, 48000));
  EXPECT_FALSE(pcmBufferToCMSampleBuffer(pcmBuffer({1, 2}, 2), nullptr, {}, 48000));
  EXPECT_FALSE(toAVAudioPCMBuffer(noData, {48000, 2}));
  EXPECT_FALSE(toAVAudioPCMBuffer(endless, {48000, 2}));
  EXPECT_FALSE(makeShapedSilenceBuffer(0, {}, {}, format, 2, 48000)) << "silently";
  EXPECT_FALSE(pcmBufferToCMSampleBuffer(AVAudioPCMBuffer({48000, 2}, 8), format, {}, 48000)) << "silently";
  const std::string helpers = "CMSampleBufferHelpers: Failed to create ";
  using testing::StartsWith;
  EXPECT_THAT(
      log.lines(),
      testing::ElementsAre(
          StartsWith(helpers + "format description: "), StartsWith(helpers + "block buffer: "),
          StartsWith(helpers + "sample buffer: "), StartsWith(helpers + "block buffer for shaped silence: "),
          StartsWith(helpers + "shaped silence sample buffer: "), StartsWith(helpers + "sample buffer from PCM: "),
          "CMSampleBufferHelpers: No data buffer in sample buffer", helpers + "AVAudioPCMBuffer"));
}

}  // namespace
}  // namespace tarn
