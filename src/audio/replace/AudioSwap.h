#pragma once

#include <optional>

#include "pipeline/ProcessingStep.h"
#include "presentation/Presentation.h"

namespace tarn {

/// Puts new audio in the place of the first audio track of run.fileURL, and holds the result against what the file
/// showed before. The run must outlive it, and the file must stay as it is in between.
class AudioSwap {
 public:
  /// Reads what the file shows. Throws PosixError if it cannot be read; where its tables are damaged there is
  /// nothing to compare with, and the new audio goes in unchecked.
  explicit AudioSwap(ProcessingRun& run);

  /// Where the part of the old media ends that the file shows, in seconds of the media; infinite where it is not known.
  double shownMediaEnd() const;

  /// False if the old audio has no edit list, damaged or not.
  bool mayHaveEditList() const { return !before_ || (audio() && audio()->hasEditList); }

  /// Writes `fixed`, with the audio of `newAudio`, an M4A whose media time 0 is that of the old audio, and moves it
  /// over run.fileURL in one step. The edits of the old audio stay, unless they are damaged. Where the packets of
  /// `newAudio` are the source's, `packetLength` says how far one may be off its place. Throws RefusedResult if the
  /// result would change more than that and the new media; AudioTrackReplacerError; failures of the file layer. The
  /// file is then as it was, and `fixed` may be there, for the caller to delete.
  void swap(const Path& newAudio, const Path& fixed, MovieTime packetLength = {}) const;

 private:
  const TrackPresentation* audio() const { return before_ ? before_->first("soun") : nullptr; }

  ProcessingRun& run_;
  std::optional<Presentation> before_;
};

}  // namespace tarn
