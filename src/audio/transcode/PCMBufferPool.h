#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <vector>

#include "media/AVAudioPCMBuffer.h"

namespace tarn {

/// PCM buffers that wait to be used again, by capacity. Thread-safe.
class PCMBufferPool {
 public:
  /// A buffer of exactly this capacity and of length 0; its samples may be left from an earlier use. Nothing for a
  /// capacity or a format without room for a sample.
  std::optional<AVAudioPCMBuffer> getBuffer(const AVAudioFormat& format, uint32_t frameCapacity);

  /// Takes a buffer that is no longer used. It is let go where the pool is full.
  void returnBuffer(AVAudioPCMBuffer buffer);

  /// The one of this process.
  static PCMBufferPool& shared();

 private:
  static constexpr size_t maxBuffersPerSize = 4;
  static constexpr size_t maxCachedSizes = 8;

  std::mutex lock_;
  std::map<uint32_t, std::vector<AVAudioPCMBuffer>> pool_;
};

}  // namespace tarn
