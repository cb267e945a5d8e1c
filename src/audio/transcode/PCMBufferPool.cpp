#include "audio/transcode/PCMBufferPool.h"

#include <utility>

namespace tarn {

std::optional<AVAudioPCMBuffer> PCMBufferPool::getBuffer(const AVAudioFormat& format, uint32_t frameCapacity) {
  if (frameCapacity == 0 || format.channelCount == 0) return std::nullopt;
  {
    std::lock_guard guard(lock_);
    auto waiting = pool_.find(frameCapacity);
    // A buffer of another format has another number of samples.
    if (waiting != pool_.end() && !waiting->second.empty() && waiting->second.back().format() == format) {
      AVAudioPCMBuffer buffer = std::move(waiting->second.back());
      waiting->second.pop_back();
      buffer.setFrameLength(0);
      return buffer;
    }
  }
  return AVAudioPCMBuffer(format, frameCapacity);
}

void PCMBufferPool::returnBuffer(AVAudioPCMBuffer buffer) {
  std::lock_guard guard(lock_);
  const uint32_t capacity = buffer.frameCapacity();
  if (!pool_.contains(capacity) && pool_.size() == maxCachedSizes) return;
  auto& waiting = pool_[capacity];
  if (!waiting.empty() && !(waiting.back().format() == buffer.format())) waiting.clear();
  if (waiting.size() < maxBuffersPerSize) waiting.push_back(std::move(buffer));
}

PCMBufferPool& PCMBufferPool::shared() {
  static PCMBufferPool pool;
  return pool;
}

}  // namespace tarn
