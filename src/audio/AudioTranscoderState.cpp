#include "audio/AudioTranscoderState.h"

#include <algorithm>
#include <cmath>

namespace tarn {

AudioTranscodingState::AudioTranscodingState(const AudioTranscoder::Config& configuration)
    : config(configuration),
      fadeLengthFrames(wholeFrames(configuration.sampleRate * configuration.fadeDurationMs / 1000)) {}

int64_t wholeFrames(double frames) {
  constexpr double most = 0x1p62;
  return std::isnan(frames) ? 0 : static_cast<int64_t>(std::clamp(frames, -most, most));
}

}  // namespace tarn
