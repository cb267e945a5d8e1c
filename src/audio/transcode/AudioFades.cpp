#include "audio/transcode/AudioFades.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <numbers>
#include <span>

namespace tarn {
namespace {

std::span<int16_t> samplesOf(AVAudioPCMBuffer& buffer) {
  return {buffer.int16ChannelData(), size_t{buffer.frameLength()} * buffer.format().channelCount};
}

int16_t scaled(int16_t sample, double gain) {
  constexpr double least = std::numeric_limits<int16_t>::min();
  constexpr double most = std::numeric_limits<int16_t>::max();
  return static_cast<int16_t>(std::clamp(std::round(gain * sample), least, most));
}

/// Multiplies `count` frames from `firstFrame` on. `gain` takes the cosine of a half turn that the fade makes.
template <typename Gain>
void fade(AVAudioPCMBuffer& buffer, int64_t firstFrame, int64_t count, Gain gain) {
  const auto channels = static_cast<size_t>(buffer.format().channelCount);
  const auto samples = samplesOf(buffer);
  for (int64_t i = 0; i < count; ++i) {
    const double turn = std::numbers::pi * static_cast<double>(i) / static_cast<double>(count - 1);
    for (int16_t& sample : samples.subspan(static_cast<size_t>(firstFrame + i) * channels, channels)) {
      sample = scaled(sample, gain(std::cos(turn)));
    }
  }
}

}  // namespace

void applyFadeIn(AVAudioPCMBuffer& buffer, int64_t fadeLengthFrames) {
  const int64_t count = std::min<int64_t>(fadeLengthFrames, buffer.frameLength());
  if (count >= 2) fade(buffer, 0, count, [](double cosine) { return (1 - cosine) / 2; });
}

void applyFadeOut(AVAudioPCMBuffer& buffer, int64_t fadeLengthFrames) {
  const int64_t count = std::min<int64_t>(fadeLengthFrames, buffer.frameLength());
  if (count < 2) return;
  fade(buffer, buffer.frameLength() - count, count, [](double cosine) { return (cosine + 1) / 2; });
}

void dropFramesFromHead(AVAudioPCMBuffer& buffer, int64_t frames) {
  if (frames < 1) return;
  const auto dropped = static_cast<uint32_t>(std::min<int64_t>(frames, buffer.frameLength()));
  auto samples = samplesOf(buffer);
  std::ranges::copy(samples.subspan(size_t{dropped} * buffer.format().channelCount), samples.begin());
  buffer.setFrameLength(buffer.frameLength() - dropped);
}

}  // namespace tarn
