#pragma once

#include <memory>
#include <string_view>

#include "movie/MediaLayout.h"
#include "movie/MovieTree.h"
#include "platform/FileManager.h"
#include "platform/ReadWatch.h"

namespace tarn {

/// What the log and the failures say of one input of the replacer, and of the other.
struct InputWords {
  std::string_view title;
  const char* cannotOpen;
  const char* noMdat;
  const char* cannotReadMoov;
  const char* cannotReadMedia;
};

inline constexpr InputWords originalWords{"Original", "Cannot open original file", "No mdat box found",
                                          "Cannot read original moov", "Failed to read video mdat"};
inline constexpr InputWords audioWords{"Audio", "Cannot open audio file", "No mdat in audio file",
                                       "Cannot read audio moov", "Failed to read audio mdat"};

/// One of the replacer's two files, open, with its top level. It holds a `moov` and at least one `mdat`.
class ReplacerInput {
 public:
  /// Throws AudioTrackReplacerError, MovieError and PosixError. `words` must outlive it.
  ReplacerInput(FileManager& files, const Path& path, const InputWords& words);

  const InputWords& words() const { return words_; }
  FileHandle& file() const { return *file_; }
  /// Throws PosixError if a search has taken a box that it could not read for one that is not there.
  void requireReadable() const { file_->requireReadable(); }
  const MediaLayout& layout() const { return layout_; }
  const BoxHeader& moovBox() const { return moovBox_; }

  /// Throws AudioTrackReplacerError::corruptedMP4 for a `moov` that is not there whole, and MovieError.
  MovieBox readMoov() const;

 private:
  const InputWords& words_;
  std::unique_ptr<ReadWatch> file_;
  MediaLayout layout_;
  BoxHeader moovBox_;
};

}  // namespace tarn
