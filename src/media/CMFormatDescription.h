#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/Bytes.h"

namespace tarn {

constexpr uint32_t fourCharacterCode(const char (&text)[5]) {
  uint32_t code = 0;
  for (int i = 0; i < 4; ++i) code = code << 8 | static_cast<uint8_t>(text[i]);
  return code;
}

inline constexpr uint32_t kAudioFormatLinearPCM = fourCharacterCode("lpcm");
inline constexpr uint32_t kAudioFormatMPEG4AAC = fourCharacterCode("aac ");

/// Flags of linear PCM: signed integers, packed.
inline constexpr uint32_t kAudioFormatFlagIsSignedInteger = 4;
inline constexpr uint32_t kAudioFormatFlagIsPacked = 8;

/// How a stream of audio is laid out, in the fields of the mobile platform.
struct AudioStreamBasicDescription {
  double mSampleRate = 0;  ///< Hz
  uint32_t mFormatID = 0;
  uint32_t mFormatFlags = 0;
  uint32_t mBytesPerPacket = 0;   ///< 0 if packets differ in size
  uint32_t mFramesPerPacket = 0;  ///< 0 if packets differ in length
  uint32_t mBytesPerFrame = 0;    ///< 0 for compressed audio
  uint32_t mChannelsPerFrame = 0;
  uint32_t mBitsPerChannel = 0;  ///< 0 for compressed audio
  uint32_t mReserved = 0;

  bool operator==(const AudioStreamBasicDescription&) const = default;
};

/// True for AAC whose packets all hold the same number of PCM frames.
inline bool isPacketizedAAC(const AudioStreamBasicDescription& stream) {
  return stream.mFormatID == kAudioFormatMPEG4AAC && stream.mFramesPerPacket > 0 && stream.mSampleRate > 0;
}

/// 16-bit signed PCM, interleaved, in host byte order.
AudioStreamBasicDescription interleavedPCM16(double sampleRate, uint32_t channels);

/// What one sample entry of a track says of its samples. Immutable and shared.
struct CMFormatDescription {
  std::string codec;                                             ///< type of the sample entry ("mp4a"), or "lpcm"
  std::optional<AudioStreamBasicDescription> streamDescription;  ///< of audio whose entry can be read
  /// For AAC the AudioSpecificConfig (ISO/IEC 14496-3 1.6.2.1), if there is one; of Opus, FLAC and ALAC the contents
  /// of the entry's `dOps`, `dfLa` or `alac`.
  Bytes magicCookie;
  /// objectTypeIndication of the DecoderConfigDescriptor (ISO/IEC 14496-1 7.2.6.6): 0x40 for AAC, 0x69 and 0x6B for
  /// MPEG audio; 0 without an `esds`.
  uint8_t objectTypeIndication = 0;
};

using CMFormatDescriptionPointer = std::shared_ptr<const CMFormatDescription>;

inline const AudioStreamBasicDescription* CMAudioFormatDescriptionGetStreamBasicDescription(
    const CMFormatDescription& description) {
  return description.streamDescription ? &*description.streamDescription : nullptr;
}

/// Empty if there is none.
inline ByteView CMAudioFormatDescriptionGetMagicCookie(const CMFormatDescription& description) {
  return description.magicCookie;
}

/// A description of audio of this layout. Throws an Error of the domain "CMFormatDescription", whose code is the
/// status, for a rate or channel count of 0.
CMFormatDescriptionPointer CMAudioFormatDescriptionCreate(const AudioStreamBasicDescription& streamDescription,
                                                          ByteView magicCookie = {});

}  // namespace tarn
