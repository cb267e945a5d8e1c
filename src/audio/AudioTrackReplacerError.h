#pragma once

#include <string>

#include "platform/Error.h"
#include "platform/FileManager.h"

namespace tarn {

class AudioTrackReplacerError : public Error {
 public:
  enum class Case { fileNotFound, corruptedMP4, writeError, ioError, noVideoTrack, noAudioTrack, moovNotFound };

  static AudioTrackReplacerError fileNotFound(const Path& path);
  static AudioTrackReplacerError corruptedMP4(const std::string& text);
  static AudioTrackReplacerError writeError(const std::string& text);
  static AudioTrackReplacerError ioError(const Error& error);
  static AudioTrackReplacerError noVideoTrack();
  static AudioTrackReplacerError noAudioTrack();
  static AudioTrackReplacerError moovNotFound();

  Case kind() const { return kind_; }

 private:
  AudioTrackReplacerError(Case kind, std::string description);
  Case kind_;
};

}  // namespace tarn
