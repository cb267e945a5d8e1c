#include "audio/CMSampleBufferHelpers.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <numbers>
#include <span>
#include <utility>
#include <vector>

#include "audio/transcode/NoiseTable.h"
#include "audio/transcode/PCMBufferPool.h"
#include "platform/Checked.h"
#include "platform/Error.h"
#include "platform/Log.h"

namespace tarn {
namespace {

constexpr int32_t badLengthParameter = -12704;        // kCMBlockBufferBadLengthParameterErr
constexpr int32_t requiredParameterMissing = -12731;  // kCMSampleBufferError_RequiredParameterMissing

constexpr int64_t largestSample = std::numeric_limits<int16_t>::max();
constexpr int64_t smallestSample = std::numeric_limits<int16_t>::min();
constexpr double noiseSwell = 0.2;  // the part of a ramp, at its quiet end, over which the noise comes or goes

int16_t clamped(int64_t value) {
  return static_cast<int16_t>(std::clamp(value, smallestSample, largestSample));
}

/// The number of samples in a block of this many frames; nothing if that is none, or more than a block holds.
std::optional<size_t> samplesInBlock(int64_t frames, int64_t channels) {
  constexpr int64_t most = std::numeric_limits<int32_t>::max() / int64_t{sizeof(int16_t)};
  auto samples = checkedMultiply(frames, channels);
  if (frames < 1 || channels < 1 || !samples || *samples > most) return std::nullopt;
  return static_cast<size_t>(*samples);
}

CMBlockBufferPointer block(std::span<const int16_t> samples) {
  Bytes bytes(samples.size_bytes());
  std::memcpy(bytes.data(), samples.data(), bytes.size());
  return std::make_shared<const CMBlockBuffer>(std::move(bytes));
}

/// `failure` begins the log line of a buffer that cannot be made.
std::optional<CMSampleBuffer> sampleBuffer(CMBlockBufferPointer data, int64_t frames, const CMTime& pts,
                                           const CMFormatDescriptionPointer& formatDesc, double sampleRate,
                                           const char* failure) {
  CMTime duration = CMTime::make(frames, frameTimescale(sampleRate));
  if (!formatDesc || !duration.isValid()) {
    log("{}: {}", failure, requiredParameterMissing);
    return std::nullopt;
  }
  return CMSampleBuffer{.presentationTimeStamp = pts,
                        .duration = duration,
                        .numSamples = frames,
                        .formatDescription = formatDesc,
                        .dataBuffer = std::move(data)};
}

/// Fills the parts of a silence. The draws from the table follow each other as the samples do.
class SilenceShaper {
 public:
  SilenceShaper(size_t channels, const SilenceShape& shape)
      : channels_(channels), shape_(shape), amplitude_(amplitude(shape.noiseLevel)) {}

  /// Falls from the last value and does not reach zero.
  void fillHead(std::span<int16_t> samples) {
    if (shape_.lastSampleValue == 0) return;
    fillRamp(samples, shape_.lastSampleValue, [](double p) {
      return Point{(std::cos(std::numbers::pi * p) + 1) / 2, (p - (1 - noiseSwell)) / noiseSwell};
    });
  }

  void fillMiddle(std::span<int16_t> samples) {
    if (shape_.useComfortNoise) std::ranges::generate(samples, [this] { return clamped(noise()); });
  }

  /// Rises from zero and does not reach the next value.
  void fillTail(std::span<int16_t> samples) {
    if (shape_.nextSampleValue == 0) return;
    fillRamp(samples, shape_.nextSampleValue, [](double p) {
      return Point{(1 - std::cos(std::numbers::pi * p)) / 2, 1 - p / noiseSwell};
    });
  }

 private:
  struct Point {
    double gain;       ///< of the neighbouring audio's value
    double noiseGain;  ///< no noise at 0 and below
  };

  static int64_t amplitude(double level) {
    constexpr double most = std::numeric_limits<int32_t>::max();
    const double wanted = level * static_cast<double>(largestSample);
    return std::isnan(wanted) ? 0 : static_cast<int64_t>(std::clamp(wanted, -most, most));
  }

  int64_t noise() { return NoiseTable::shared().draw() * amplitude_ >> 15; }

  template <typename Curve>
  void fillRamp(std::span<int16_t> samples, int16_t value, Curve curve) {
    const size_t ramp = samples.size() / channels_;
    for (size_t i = 0; i < ramp; ++i) {
      const Point point = curve(static_cast<double>(i) / static_cast<double>(ramp));
      auto sample = static_cast<int64_t>(point.gain * value);
      if (shape_.useComfortNoise && point.noiseGain > 0) {
        sample += static_cast<int64_t>(point.noiseGain * static_cast<double>(noise()));
      }
      std::ranges::fill(samples.subspan(i * channels_, channels_), clamped(sample));
    }
  }

  size_t channels_;
  const SilenceShape& shape_;
  int64_t amplitude_;
};

}  // namespace

CMFormatDescriptionPointer createPCMFormatDescription(double sampleRate, int channels) {
  try {
    return CMAudioFormatDescriptionCreate(interleavedPCM16(sampleRate, static_cast<uint32_t>(std::max(channels, 0))));
  } catch (const Error& error) {
    log("CMSampleBufferHelpers: Failed to create format description: {}", error.code());
    return nullptr;
  }
}

std::optional<CMSampleBuffer> makeSilenceSampleBuffer(int64_t frames, const CMTime& pts,
                                                      const CMFormatDescriptionPointer& formatDesc, int channels,
                                                      double sampleRate) {
  auto samples = samplesInBlock(frames, channels);
  if (!samples) {
    log("CMSampleBufferHelpers: Failed to create block buffer: {}", badLengthParameter);
    return std::nullopt;
  }
  auto zeros = std::make_shared<const CMBlockBuffer>(Bytes(*samples * sizeof(int16_t)));
  return sampleBuffer(std::move(zeros), frames, pts, formatDesc, sampleRate,
                      "CMSampleBufferHelpers: Failed to create sample buffer");
}

std::optional<CMSampleBuffer> makeShapedSilenceBuffer(int64_t frames, const SilenceShape& shape, const CMTime& pts,
                                                      const CMFormatDescriptionPointer& formatDesc, int channels,
                                                      double sampleRate) {
  if (frames < 1) return std::nullopt;
  auto count = samplesInBlock(frames, channels);
  if (!count) {
    log("CMSampleBufferHelpers: Failed to create block buffer for shaped silence: {}", badLengthParameter);
    return std::nullopt;
  }
  std::vector<int16_t> samples(*count);
  const auto width = static_cast<size_t>(channels);
  const size_t ramp = static_cast<size_t>(std::clamp<int64_t>(shape.rampFrames, 0, frames / 2)) * width;
  SilenceShaper shaper(width, shape);
  std::span<int16_t> all(samples);
  shaper.fillHead(all.first(ramp));
  shaper.fillMiddle(all.subspan(ramp, all.size() - 2 * ramp));
  shaper.fillTail(all.last(ramp));
  return sampleBuffer(block(samples), frames, pts, formatDesc, sampleRate,
                      "CMSampleBufferHelpers: Failed to create shaped silence sample buffer");
}

std::optional<CMSampleBuffer> pcmBufferToCMSampleBuffer(const AVAudioPCMBuffer& buffer,
                                                        const CMFormatDescriptionPointer& formatDesc, const CMTime& pts,
                                                        double sampleRate) {
  if (buffer.frameLength() == 0 || buffer.format().channelCount == 0) return std::nullopt;
  auto count = samplesInBlock(buffer.frameLength(), buffer.format().channelCount);
  if (!count) {
    log("CMSampleBufferHelpers: Failed to create block buffer for PCM: {}", badLengthParameter);
    return std::nullopt;
  }
  return sampleBuffer(block({buffer.int16ChannelData(), *count}), buffer.frameLength(), pts, formatDesc, sampleRate,
                      "CMSampleBufferHelpers: Failed to create sample buffer from PCM");
}

std::optional<AVAudioPCMBuffer> toAVAudioPCMBuffer(const CMSampleBuffer& sampleBuffer,
                                                   const AVAudioFormat& targetFormat,
                                                   std::optional<AVAudioPCMBuffer> reuseBuffer) {
  const int64_t frames = sampleBuffer.numSamples;
  if (frames < 1) return std::nullopt;
  auto samples = samplesInBlock(frames, targetFormat.channelCount);
  std::optional<AVAudioPCMBuffer> buffer = std::move(reuseBuffer);
  const bool isUsable = buffer && buffer->frameCapacity() >= frames && buffer->format() == targetFormat;
  if (samples && !isUsable) {
    buffer = PCMBufferPool::shared().getBuffer(targetFormat, static_cast<uint32_t>(frames));
  }
  if (!samples || !buffer) {
    log("CMSampleBufferHelpers: Failed to create AVAudioPCMBuffer");
    return std::nullopt;
  }
  if (!sampleBuffer.dataBuffer) {
    log("CMSampleBufferHelpers: No data buffer in sample buffer");
    return std::nullopt;
  }
  buffer->setFrameLength(static_cast<uint32_t>(frames));
  std::span<int16_t> target(buffer->int16ChannelData(), *samples);
  ByteView bytes = sampleBuffer.dataBuffer->bytes();
  bytes = bytes.first(std::min(bytes.size(), target.size_bytes()));
  std::memcpy(target.data(), bytes.data(), bytes.size());
  // A buffer that is used again holds other audio.
  std::ranges::fill(target.subspan((bytes.size() + 1) / sizeof(int16_t)), int16_t{0});
  return buffer;
}

}  // namespace tarn
