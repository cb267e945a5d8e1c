#include "media/AudioSpecificConfig.h"

#include <array>

#include "mp4/BitReader.h"

namespace tarn {
namespace {

constexpr std::array<uint32_t, 16> samplingFrequencies = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050,
                                                          16000, 12000, 11025, 8000,  7350,  0,     0,     0};
constexpr uint32_t explicitFrequency = 15;
constexpr std::array<uint32_t, 16> channelCounts = {0, 1, 2, 3, 4, 5, 6, 8, 0, 0, 0, 7, 8, 24, 8, 0};

constexpr int typeEscape = 31;

/// Bits that must all be there.
class ConfigBits {
 public:
  explicit ConfigBits(ByteView config) : reader_(config), left_(config.size() * 8) {}

  uint32_t take(int count) {
    if (left_ < static_cast<size_t>(count)) {
      ended_ = true;
      left_ = 0;
      return 0;
    }
    left_ -= static_cast<size_t>(count);
    return reader_.readBits(count);
  }
  bool ended() const { return ended_; }

  int objectType() {
    auto type = static_cast<int>(take(5));
    return type == typeEscape ? 32 + static_cast<int>(take(6)) : type;
  }
  uint32_t samplingFrequency() {
    uint32_t index = take(4);
    return index == explicitFrequency ? take(24) : samplingFrequencies[index];
  }

 private:
  BitReader reader_;
  size_t left_;
  bool ended_ = false;
};

/// By the object type and the frameLengthFlag with which its specific config begins (ISO/IEC 14496-3 4.4.1, 4.6.20.3).
uint32_t framesPerPacket(int objectType, bool frameLengthFlag) {
  switch (objectType) {
    case 1:   // Main
    case 2:   // LC
    case 3:   // SSR
    case 4:   // LTP
    case 6:   // Scalable
    case 17:  // ER LC
    case 19:  // ER LTP
    case 20:  // ER Scalable
      return frameLengthFlag ? 960 : 1024;
    case 23:  // ER LD
    case 39:  // ER ELD
      return frameLengthFlag ? 480 : 512;
    default:
      return 0;
  }
}

}  // namespace

bool indicatesAAC(uint8_t objectTypeIndication) {
  switch (objectTypeIndication) {
    case 0:
    case 0x40:  // ISO/IEC 14496-3
    case 0x66:  // ISO/IEC 13818-7, in its three profiles
    case 0x67:
    case 0x68:
      return true;
    default:
      return false;
  }
}

bool indicatesMPEGAudio(uint8_t objectTypeIndication) {
  return objectTypeIndication == 0x69 || objectTypeIndication == 0x6B;
}

std::optional<int> announcedObjectType(ByteView config) {
  return config.size() < 2 ? std::nullopt : std::optional(config[0] >> 3);
}

std::optional<AudioSpecificConfig> parseAudioSpecificConfig(ByteView config) {
  ConfigBits bits(config);
  AudioSpecificConfig result;
  result.audioObjectType = bits.objectType();
  result.sampleRate = bits.samplingFrequency();
  result.channels = channelCounts[bits.take(4)];
  if (result.audioObjectType == objectTypeSBR || result.audioObjectType == objectTypePS) {
    bits.samplingFrequency();  // of the extension
    result.audioObjectType = bits.objectType();
  }
  if (bits.ended() || result.sampleRate == 0) return std::nullopt;
  // A config that ends here has no flag set.
  result.framesPerPacket = framesPerPacket(result.audioObjectType, bits.take(1) != 0);
  return result;
}

}  // namespace tarn
