#pragma once

#include <string>

#include "platform/Error.h"

namespace tarn {

/// The failures of the audio analysis and of the transcoder.
class AudioTranscoderError : public Error {
 public:
  enum class Case { assetReadFailed, assetWriteFailed, transcodingFailed, noAudioTrack, cancelled };

  static AudioTranscoderError assetReadFailed(const std::string& message);
  static AudioTranscoderError assetWriteFailed(const std::string& message);
  static AudioTranscoderError transcodingFailed(const std::string& message);
  static AudioTranscoderError noAudioTrack();
  static AudioTranscoderError cancelled();

  Case kind() const { return kind_; }

 private:
  AudioTranscoderError(Case kind, std::string description);
  Case kind_;
};

}  // namespace tarn
