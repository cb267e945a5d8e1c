#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "audio/AudioFades.h"
#include "audio/PCM.h"

namespace tarn {
namespace {

using namespace test;

TEST(AudioFades, FollowThePlainReference) {
  for (int64_t frames : {1, 2, 3, 1439, 1440, 1441, 8192}) {
    for (size_t channels : {1, 2}) {
      Samples source;
      for (int64_t i = 0; i < frames * static_cast<int64_t>(channels); ++i) {
        source.push_back(static_cast<int16_t>(i % 3 == 0 ? 32767 : -32768 + i));
      }
      const int64_t n = std::min<int64_t>(1440, frames);
      Samples in = source, out = source;
      for (size_t i = 0; n >= 2 && i < source.size(); ++i) {
        const auto frame = static_cast<int64_t>(i / channels);
        auto cosine = [&](int64_t at) {
          return std::cos(std::numbers::pi * static_cast<double>(at) / static_cast<double>(n - 1));
        };
        const int64_t fromEnd = frame - (frames - n);
        if (frame < n) in[i] = static_cast<int16_t>(std::lround((1 - cosine(frame)) / 2 * source[i]));
        if (fromEnd >= 0) out[i] = static_cast<int16_t>(std::lround((cosine(fromEnd) + 1) / 2 * source[i]));
      }
      auto buffer = pcmBuffer(source, static_cast<uint32_t>(channels));
      applyFadeIn(buffer, 1440);
      EXPECT_EQ(samplesOf(buffer), in) << frames;
      buffer = pcmBuffer(source, static_cast<uint32_t>(channels));
      applyFadeOut(buffer, 1440);
      EXPECT_EQ(samplesOf(buffer), out) << frames;
    }
  }
}

TEST(AudioFades, FramesGoFromTheHead) {
  struct {
    int64_t frames;
    Samples left;
  } cases[] = {{-1, {1, 2, 3, 4, 5, 6}}, {0, {1, 2, 3, 4, 5, 6}}, {1, {3, 4, 5, 6}}, {2, {5, 6}}, {3, {}}, {4, {}}};
  for (const auto& c : cases) {
    auto buffer = pcmBuffer({1, 2, 3, 4, 5, 6}, 2);
    dropFramesFromHead(buffer, c.frames);
    EXPECT_EQ(samplesOf(buffer), c.left) << c.frames;
  }
}

}  // namespace
}  // namespace tarn
