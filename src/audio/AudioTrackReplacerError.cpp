#include "audio/AudioTrackReplacerError.h"

#include <utility>

namespace tarn {

AudioTrackReplacerError::AudioTrackReplacerError(Case kind, std::string description)
    : Error("AudioTrackReplacerError", -1, std::move(description)), kind_(kind) {}

AudioTrackReplacerError AudioTrackReplacerError::fileNotFound(const Path& path) {
  return {Case::fileNotFound, "File not found: " + path.string()};
}

AudioTrackReplacerError AudioTrackReplacerError::corruptedMP4(const std::string& text) {
  return {Case::corruptedMP4, "Corrupted MP4: " + text};
}

AudioTrackReplacerError AudioTrackReplacerError::writeError(const std::string& text) {
  return {Case::writeError, "Write error: " + text};
}

AudioTrackReplacerError AudioTrackReplacerError::ioError(const Error& error) {
  return {Case::ioError, "I/O error: " + error.description()};
}

AudioTrackReplacerError AudioTrackReplacerError::noVideoTrack() {
  return {Case::noVideoTrack, "No video track found in original file"};
}

AudioTrackReplacerError AudioTrackReplacerError::noAudioTrack() {
  return {Case::noAudioTrack, "No audio track found in new audio file"};
}

AudioTrackReplacerError AudioTrackReplacerError::moovNotFound() {
  return {Case::moovNotFound, "moov box not found in file"};
}

}  // namespace tarn
