#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>

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

/// The shape told frame by frame.
Samples reference(int64_t frames, const SilenceShape& shape, int channels, NoiseTable noiseTable) {
  const int64_t ramp = std::min(shape.rampFrames, frames / 2);
  const int amplitude = static_cast<int>(shape.noiseLevel * 32767);
  const auto noise = [&] { return shape.useComfortNoise ? noiseTable.draw() * amplitude >> 15 : 0; };
  Samples samples;
  for (int64_t frame = 0; frame < frames; ++frame) {
    const bool isHead = frame < ramp, isMiddle = !isHead && frame < frames - ramp;
    const int64_t i = isHead ? frame : frame - (frames - ramp);
    const double at = static_cast<double>(i), length = static_cast<double>(ramp), p = at / length;
    const double swell = isHead ? (p - 0.8) / 0.2 : 1 - p / 0.2;
    const int neighbour = isHead ? shape.lastSampleValue : shape.nextSampleValue;
    int value = static_cast<int>((isHead ? cosineAt(at, length) + 1 : 1 - cosineAt(at, length)) / 2 * neighbour);
    if (!isMiddle && neighbour != 0 && swell > 0) value += static_cast<int>(swell * noise());
    for (int c = 0; c < channels; ++c) {
      samples.push_back(static_cast<int16_t>(std::clamp(isMiddle ? noise() : value, -32768, 32767)));
    }
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
  for (const auto& [frames, shape, channels] : cases) {
    SCOPED_TRACE(frames);
    const NoiseTable before = NoiseTable::shared();  // each silence goes on where the one ahead stopped
    auto silence = makeShapedSilenceBuffer(frames, shape, CMTime::make(5, 1),
                                           createPCMFormatDescription(48000, channels), channels, 48000);
    ASSERT_TRUE(silence);
    EXPECT_EQ(silence->presentationTimeStamp.seconds(), 5);
    EXPECT_EQ(silence->duration.seconds(), static_cast<double>(frames) / 48000);
    EXPECT_EQ(samplesOf(*silence), reference(frames, shape, channels, before));
  }
}

TEST(NoiseTable, FillsTheRangeAndComesRound) {
  NoiseTable table;
  Samples drawn;
  for (size_t i = 0; i < NoiseTable::size; ++i) drawn.push_back(table.draw());
  for (int16_t value : drawn) ASSERT_EQ(table.draw(), value);
  EXPECT_LT(*std::ranges::min_element(drawn), -30000);
  EXPECT_GT(*std::ranges::max_element(drawn), 30000);
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
  const std::pair<int64_t, Samples> cases[] = {{-1, {1, 2, 3, 4}}, {0, {1, 2, 3, 4}}, {1, {3, 4}}, {2, {}}, {3, {}}};
  for (const auto& [frames, left] : cases) {
    auto buffer = pcmBuffer(Samples{1, 2, 3, 4}, 2);
    dropFramesFromHead(buffer, frames);
    EXPECT_EQ(samplesOf(buffer), left) << frames;
  }
}

TEST(PCMBuffers, GoToSampleBuffersAndBack) {
  const AVAudioFormat stereo{48000, 2};
  const Samples samples{1, -2, 3, -4, 5, -6};
  auto sampleBuffer = pcmBufferToCMSampleBuffer(pcmBuffer(samples, 2), createPCMFormatDescription(48000, 2), {}, 48000);
  ASSERT_TRUE(sampleBuffer);
  auto reused = toAVAudioPCMBuffer(*sampleBuffer, stereo, AVAudioPCMBuffer(stereo, 100));
  EXPECT_EQ(reused->frameCapacity(), 100u);
  EXPECT_EQ(samplesOf(*reused), samples);
  EXPECT_EQ(toAVAudioPCMBuffer(*sampleBuffer, stereo, AVAudioPCMBuffer(stereo, 2))->frameCapacity(), 3u);

  // One of the pool may have fewer channels, and holds what it was used for.
  PCMBufferPool::shared().returnBuffer(pcmBuffer(Samples{9, 9, 9}, 1));
  EXPECT_EQ(samplesOf(*toAVAudioPCMBuffer(*sampleBuffer, stereo)), samples);
  PCMBufferPool::shared().returnBuffer(pcmBuffer(Samples{9, 9, 9, 9}, 2));
  sampleBuffer->numSamples = 2;
  sampleBuffer->dataBuffer = std::make_shared<const CMBlockBuffer>(Bytes{1, 0});
  EXPECT_EQ(samplesOf(*toAVAudioPCMBuffer(*sampleBuffer, stereo)), (Samples{1, 0, 0, 0}));
}

TEST(PCMBuffers, WhatCannotBeMadeIsNothing) {
  const auto format = createPCMFormatDescription(48000, 2);
  CMSampleBuffer noData, endless;
  noData.numSamples = 5;
  endless.numSamples = int64_t{1} << 60;
  LogCapture log;
  EXPECT_FALSE(createPCMFormatDescription(0, 2));
  EXPECT_FALSE(makeSilenceSampleBuffer(endless.numSamples, {}, format, 2, 48000));
  EXPECT_FALSE(makeShapedSilenceBuffer(endless.numSamples, {}, {}, format, 2, 48000));
  EXPECT_FALSE(toAVAudioPCMBuffer(noData, {48000, 2}));
  EXPECT_FALSE(toAVAudioPCMBuffer(endless, {48000, 2}));
  EXPECT_EQ(log.lines().size(), 5u);
  EXPECT_TRUE(log.contains("CMSampleBufferHelpers: No data buffer in sample buffer"));
  EXPECT_FALSE(pcmBufferToCMSampleBuffer(AVAudioPCMBuffer({48000, 2}, 8), format, {}, 48000));
  EXPECT_EQ(log.lines().size(), 5u) << "an empty buffer is no failure";
}

}  // namespace
}  // namespace tarn::test
