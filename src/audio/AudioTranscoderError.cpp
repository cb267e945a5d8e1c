#include "audio/AudioTranscoderError.h"

namespace tarn {

AudioTranscoderError::AudioTranscoderError(Case kind, std::string description)
    : Error("AudioTranscoderError", static_cast<int>(kind), std::move(description)), kind_(kind) {}

AudioTranscoderError AudioTranscoderError::assetReadFailed(const std::string& message) {
  return {Case::assetReadFailed, "Asset read failed: " + message};
}

AudioTranscoderError AudioTranscoderError::assetWriteFailed(const std::string& message) {
  return {Case::assetWriteFailed, "Asset write failed: " + message};
}

AudioTranscoderError AudioTranscoderError::transcodingFailed(const std::string& message) {
  return {Case::transcodingFailed, "Audio transcoding failed: " + message};
}

AudioTranscoderError AudioTranscoderError::noAudioTrack() {
  return {Case::noAudioTrack, "No audio track found in input file"};
}

AudioTranscoderError AudioTranscoderError::cancelled() {
  return {Case::cancelled, "Audio transcoding was cancelled"};
}

}  // namespace tarn
