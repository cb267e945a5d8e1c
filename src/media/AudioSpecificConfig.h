#pragma once

#include <cstdint>
#include <optional>

#include "platform/Bytes.h"

namespace tarn {

/// What an AudioSpecificConfig (ISO/IEC 14496-3 1.6.2.1) says of the core coder, the one below SBR and PS.
struct AudioSpecificConfig {
  int audioObjectType = 0;  ///< of the core coder; 2 for AAC-LC, also where it is announced under 5 (SBR) or 29 (PS)
  uint32_t sampleRate = 0;  ///< Hz
  uint32_t channels = 0;    ///< 0 where a program config element tells
  uint32_t framesPerPacket = 0;  ///< PCM frames of the core coder; 0 where packets are not those of AAC
};

/// Nothing where the bytes end too early or the rate is a reserved one.
std::optional<AudioSpecificConfig> parseAudioSpecificConfig(ByteView config);

}  // namespace tarn
