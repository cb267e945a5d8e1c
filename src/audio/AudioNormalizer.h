#pragma once

#include <cstdint>

#include "media/AVAudioPCMBuffer.h"
#include "media/CMFormatDescription.h"

namespace tarn {

struct AudioNormalizerConfig {
  double sampleRate = 48000;  ///< Hz
  int channels = 2;
  double padDropThresholdMs = 2.0;
  int maxSilenceChunkFrames = 48000;
};

/// The one format in which a transcoding handles its PCM. Made once for each transcoding.
class AudioNormalizer {
 public:
  explicit AudioNormalizer(const AudioNormalizerConfig& config);

  const AudioNormalizerConfig& config() const { return config_; }
  const AVAudioFormat& pcmFormat() const { return pcmFormat_; }
  /// The same format as sample buffers name it; null if there is no such format.
  const CMFormatDescriptionPointer& formatDescription() const { return formatDescription_; }

 private:
  AudioNormalizerConfig config_;
  AVAudioFormat pcmFormat_;
  CMFormatDescriptionPointer formatDescription_;
};

}  // namespace tarn
