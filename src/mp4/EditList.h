#pragma once

#include <cstdint>
#include <vector>

#include "mp4/BoxLayout.h"
#include "mp4/MP4BoxUtils.h"
#include "platform/FileManager.h"

namespace tarn {

/// A row of an `elst` (ISO/IEC 14496-12 8.6.6).
struct EditListRow {
  uint64_t duration = 0;                   ///< movie timescale; 0: to the end of the media
  int64_t mediaTime = 0;                   ///< track timescale, or layout::emptyEdit
  int32_t mediaRate = layout::normalRate;  ///< 16.16; 0 holds what is shown at `mediaTime`

  bool isEmpty() const { return mediaTime == layout::emptyEdit; }
  bool operator==(const EditListRow&) const = default;
};

/// The rows of a track's edit list; none where it has no list. Moves the file's position. Throws an
/// Error of the domain "SampleTable" or a ByteArrayError where the box ends before its count does.
std::vector<EditListRow> readEditList(FileHandle& file, const MP4BoxInfo& trak);

/// A part of the media that is shown; all times in the track's timescale, at most 2^60 in size.
struct MediaEdit {
  static constexpr int64_t latestTime = int64_t{1} << 60;

  int64_t presentationStart = 0;
  int64_t mediaStart = 0;
  int64_t mediaEnd = latestTime;  ///< of the last tick shown, the end; `latestTime` where all is shown to the end
};

/// Lays an edit list on the presentation timeline: empty edits advance the clock, the others come out in order, as
/// if all rates were 1. No rows at all show the media as it is. `mediaDuration` tells how far an edit of duration 0
/// takes the clock. Throws sampleTableError for rows with a timescale of 0, and for times beyond the latest.
std::vector<MediaEdit> mediaEdits(const std::vector<EditListRow>& rows, uint32_t movieTimescale,
                                  uint32_t trackTimescale, int64_t mediaDuration);

}  // namespace tarn
