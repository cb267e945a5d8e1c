#pragma once

#include "audio/AudioTrackReplacerError.h"
#include "platform/FileManager.h"
#include "presentation/RewriteCheck.h"

namespace tarn {

/// Puts the audio of one file in the place of the audio of another. Samples are not touched: media data is copied as it
/// is, and what points at it (ISO/IEC 14496-12 8.7.5, 8.11.3) moves along. No state; works on the thread of its caller.
class MP4AudioTrackReplacer {
 public:
  enum class EditList { dropped, kept };

  /// Writes `outputURL`, which is replaced: the source with all of its boxes in their order, but for the media of its
  /// first audio track, which are now those of `newAudioM4A`. Their `mdat` boxes go after the `moov`; the old packets
  /// stay where they are, unused. Of the `trak` only what describes the media is new: clock, sample table, data
  /// references, duration. Its edit list is kept in the clock of the new media, or dropped; one of the new audio is
  /// never looked at. A source without audio gets the track of `newAudioM4A` after its own, with the next free
  /// track_ID; a source without `ftyp` gets one. `check` is called with the finished file. The inputs are not changed.
  /// Throws AudioTrackReplacerError, failures of the file layer, and what `check` throws; then the output, or a part of
  /// it, may be there, for the caller to delete.
  static void replaceAudioTrack(FileManager& files, const Path& originalMP4, const Path& newAudioM4A,
                                const Path& outputURL, EditList editList = EditList::dropped,
                                const RewriteCheck& check = {});
};

}  // namespace tarn
