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

/// Builds a new MP4 of the video track of one file and the audio track of another. Samples are not touched: media data
/// boxes are copied whole, and each chunk offset (ISO/IEC 14496-12 8.7.5) moves with the box that holds its chunk. No
/// state; works on the thread of its caller.
class MP4AudioTrackReplacer {
 public:
  /// Writes `outputURL`, which is replaced: `ftyp`, a new `moov` (the source's `mvhd`, the video `trak`, the audio
  /// `trak` without an edit list), the source's `mdat` boxes, the audio's. All else is left behind. The inputs are not
  /// changed. Throws AudioTrackReplacerError and failures of the file layer; then a part of the output may be there,
  /// for the caller to delete.
  static void replaceAudioTrack(FileManager& files, const Path& originalMP4, const Path& newAudioM4A,
                                const Path& outputURL);
};

}  // namespace tarn
