#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "media/CMSampleBuffer.h"
#include "support/MediaMaker.h"

namespace tarn::test {

/// 16-bit PCM, the channels of a frame one after the other.
using Samples = std::vector<int16_t>;

inline Samples samplesIn(const void* bytes, size_t size) {
  Samples samples(size / sizeof(int16_t));
  if (!samples.empty()) std::memcpy(samples.data(), bytes, samples.size() * sizeof(int16_t));
  return samples;
}

inline Samples samplesOf(const CMSampleBuffer& buffer) {
  return samplesIn(buffer.dataBuffer->bytes().data(), buffer.dataBuffer->bytes().size());
}

/// At 48 kHz, without a time.
inline CMSampleBuffer sampleBuffer(std::span<const int16_t> samples, uint32_t channels) {
  Bytes bytes(samples.size_bytes());
  if (!bytes.empty()) std::memcpy(bytes.data(), samples.data(), bytes.size());
  CMSampleBuffer buffer;
  buffer.numSamples = static_cast<int64_t>(samples.size() / channels);
  buffer.formatDescription = CMAudioFormatDescriptionCreate(interleavedPCM16(48000, channels));
  buffer.dataBuffer = std::make_shared<CMBlockBuffer>(std::move(bytes));
  return buffer;
}

/// A file's first audio track as ffmpeg decodes it.
inline Samples decodedByFFmpeg(const Path& file, const std::string& outputOptions = "",
                               const std::string& inputOptions = "") {
  std::vector<std::string> command = words("ffmpeg -v error " + inputOptions + " -i");
  command.push_back(file);
  for (const std::string& word : words("-map 0:a:0 -f s16le " + outputOptions + " -")) command.push_back(word);
  const std::string pcm = runProcess(command).output;
  return samplesIn(pcm.data(), pcm.size());
}

/// The largest difference of neighbouring frames, in any channel.
inline int largestStep(std::span<const int16_t> samples, size_t channels) {
  int largest = 0;
  for (size_t i = channels; i < samples.size(); ++i) {
    largest = std::max(largest, std::abs(samples[i] - samples[i - channels]));
  }
  return largest;
}

/// When the first channel gets as loud as this after so many seconds in which it was not; in seconds at 48 kHz, those
/// behind `from` alone.
inline std::vector<double> onsets(std::span<const int16_t> samples, size_t channels, int loudness, double quiet,
                                  double from = 0) {
  std::vector<double> times;
  double lastLoud = from - quiet;
  for (size_t i = 0; i < samples.size(); i += channels) {
    if (std::abs(samples[i]) < loudness) continue;
    const size_t frame = i / channels;
    const double time = static_cast<double>(frame) / 48000;
    if (time > lastLoud + quiet) times.push_back(time);
    lastLoud = std::max(lastLoud, time);
  }
  return times;
}

}  // namespace tarn::test
