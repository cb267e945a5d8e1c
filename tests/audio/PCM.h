#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "audio/CMSampleBufferHelpers.h"

namespace tarn::test {

using Samples = std::vector<int16_t>;

inline AVAudioPCMBuffer pcmBuffer(const Samples& samples, uint32_t channels) {
  AVAudioPCMBuffer buffer({48000, channels}, static_cast<uint32_t>(samples.size() / channels));
  buffer.setFrameLength(buffer.frameCapacity());
  std::memcpy(buffer.int16ChannelData(), samples.data(), samples.size() * sizeof(int16_t));
  return buffer;
}

inline Samples samplesOf(const AVAudioPCMBuffer& buffer) {
  const int16_t* data = buffer.int16ChannelData();
  return {data, data + size_t{buffer.frameLength()} * buffer.format().channelCount};
}

inline Samples samplesOf(const CMSampleBuffer& buffer) {
  ByteView bytes = buffer.dataBuffer->bytes();
  Samples samples(bytes.size() / sizeof(int16_t));
  std::memcpy(samples.data(), bytes.data(), bytes.size());
  return samples;
}

}  // namespace tarn::test
