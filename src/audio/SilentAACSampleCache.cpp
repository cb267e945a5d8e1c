#include "audio/SilentAACSampleCache.h"

#include <algorithm>
#include <utility>

#include "audio/analysis/AudioAnalysis.h"
#include "platform/Log.h"

namespace tarn {
namespace {

constexpr uint32_t channels = 2;
constexpr uint32_t framesPerPacket = 1024;
constexpr uint32_t bitRate = 128000;
constexpr size_t largestPacket = 2048;
constexpr OSStatus endOfInput = -1;

/// One packet's length of zeros, once.
class Silence : public AudioConverter::InputSource {
 public:
  AudioConverterInput provide(uint32_t /*wantedPackets*/) override {
    if (std::exchange(samplesProvided_, true)) return {.status = endOfInput};
    return {.packets = framesPerPacket, .data = zeros_};
  }

 private:
  Bytes zeros_ = Bytes(size_t{framesPerPacket} * channels * sizeof(int16_t));
  bool samplesProvided_ = false;
};

Bytes generateSilentAACFrame(int64_t sampleRate) {
  const auto rate = static_cast<double>(sampleRate);
  const AudioStreamBasicDescription aac{.mSampleRate = rate,
                                        .mFormatID = kAudioFormatMPEG4AAC,
                                        .mFramesPerPacket = framesPerPacket,
                                        .mChannelsPerFrame = channels};
  auto [created, converter] = AudioConverter::create(interleavedPCM16(rate, channels), aac);
  if (created != noErr || !converter) throw SilentFrameError::converterCreationFailed(created);
  if (const OSStatus refused = converter->setEncodeBitRate(bitRate)) {
    log("SilentAACSampleCache: Warning - could not set bit rate: {}", refused);
  }
  Silence input;
  auto output = converter->fillComplexBuffer(input, 1, largestPacket);
  if (output.status != noErr && output.status != endOfInput) throw SilentFrameError::encodingFailed(output.status);
  if (output.data.empty()) throw SilentFrameError::noOutputProduced();
  return std::move(output.data);
}

}  // namespace

SilentAACSampleCache& SilentAACSampleCache::shared() {
  static SilentAACSampleCache cache;
  return cache;
}

Bytes SilentAACSampleCache::getSilentFrame(int64_t sampleRate) {
  const auto& supported = AudioConfigCheck::supportedSampleRates;
  if (std::ranges::find(supported, sampleRate) == supported.end()) {
    throw SilentFrameError::unsupportedSampleRate(sampleRate);
  }
  std::lock_guard guard(lock_);
  if (const auto cached = cachedFrames_.find(sampleRate); cached != cachedFrames_.end()) return cached->second;
  const Bytes& frame = cachedFrames_.emplace(sampleRate, generateSilentAACFrame(sampleRate)).first->second;
  log("SilentAACSampleCache: Generated {}Hz silent frame ({} bytes)", sampleRate, frame.size());
  return frame;
}

SilentFrameError::SilentFrameError(Case kind, std::string description)
    : Error("SilentFrameError", -1, std::move(description)), kind_(kind) {}

SilentFrameError SilentFrameError::converterCreationFailed(OSStatus status) {
  return {Case::converterCreationFailed, "Failed to create audio converter: " + std::to_string(status)};
}

SilentFrameError SilentFrameError::encodingFailed(OSStatus status) {
  return {Case::encodingFailed, "Failed to encode silent frame: " + std::to_string(status)};
}

SilentFrameError SilentFrameError::unsupportedSampleRate(int64_t rate) {
  return {Case::unsupportedSampleRate, fmt::format("Unsupported sample rate: {} Hz (supported: {})", rate,
                                                   fmt::join(AudioConfigCheck::supportedSampleRates, ", "))};
}

SilentFrameError SilentFrameError::noOutputProduced() {
  return {Case::noOutputProduced, "Audio converter produced no output"};
}

}  // namespace tarn
