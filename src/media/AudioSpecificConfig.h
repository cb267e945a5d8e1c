#pragma once

#include <cstdint>
#include <optional>

#include "platform/Bytes.h"

namespace tarn {

// audioObjectType (ISO/IEC 14496-3 1.5.1.1).
inline constexpr int objectTypeLC = 2;
inline constexpr int objectTypeSBR = 5;
inline constexpr int objectTypePS = 29;
inline constexpr int objectTypeLayer3 = 34;

/// What an objectTypeIndication (ISO/IEC 14496-1 7.2.6.6) says. 0 stands for an `mp4a` without an `esds`, which is AAC
/// when nothing says otherwise.
bool indicatesAAC(uint8_t objectTypeIndication);
bool indicatesMPEGAudio(uint8_t objectTypeIndication);

/// What an AudioSpecificConfig (ISO/IEC 14496-3 1.6.2.1) says of the core coder, the one below SBR and PS.
struct AudioSpecificConfig {
  int audioObjectType = 0;  ///< of the core coder; 2 for AAC-LC, also where it is announced under 5 (SBR) or 29 (PS)
  uint32_t sampleRate = 0;  ///< Hz
  uint32_t channels = 0;    ///< 0 if a program config element tells
  uint32_t framesPerPacket = 0;  ///< PCM frames of the core coder; 0 if packets are not those of AAC
};

/// The first five bits: the object type that is announced, which is that of SBR or PS where the core has another one.
/// Nothing for less than two bytes.
std::optional<int> announcedObjectType(ByteView config);

/// Nothing if the bytes end too early or the rate is a reserved one.
std::optional<AudioSpecificConfig> parseAudioSpecificConfig(ByteView config);

}  // namespace tarn
