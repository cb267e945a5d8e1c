#include "audio/AudioNormalizer.h"

#include <algorithm>

#include "audio/CMSampleBufferHelpers.h"

namespace tarn {

AudioNormalizer::AudioNormalizer(const AudioNormalizerConfig& config)
    : config_(config),
      pcmFormat_{config.sampleRate, static_cast<uint32_t>(std::max(config.channels, 0))},
      formatDescription_(createPCMFormatDescription(config.sampleRate, config.channels)) {}

}  // namespace tarn
