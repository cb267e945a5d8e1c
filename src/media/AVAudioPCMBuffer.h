#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tarn {

/// 16-bit signed PCM, interleaved, in host byte order.
struct AVAudioFormat {
  double sampleRate = 48000;  ///< Hz
  uint32_t channelCount = 2;

  bool operator==(const AVAudioFormat&) const = default;
};

/// PCM in memory, owned: room for `frameCapacity` frames, of which the first `frameLength` count.
class AVAudioPCMBuffer {
 public:
  AVAudioPCMBuffer(AVAudioFormat format, uint32_t frameCapacity)
      : format_(format), frameCapacity_(frameCapacity), samples_(std::size_t{frameCapacity} * format.channelCount) {}

  const AVAudioFormat& format() const { return format_; }
  uint32_t frameCapacity() const { return frameCapacity_; }
  uint32_t frameLength() const { return frameLength_; }
  /// At most the capacity.
  void setFrameLength(uint32_t frames) { frameLength_ = frames < frameCapacity_ ? frames : frameCapacity_; }

  /// Interleaved samples of the whole capacity.
  int16_t* int16ChannelData() { return samples_.data(); }
  const int16_t* int16ChannelData() const { return samples_.data(); }

 private:
  AVAudioFormat format_;
  uint32_t frameCapacity_;
  uint32_t frameLength_ = 0;
  std::vector<int16_t> samples_;
};

}  // namespace tarn
