#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "mp4/EditList.h"

namespace tarn {

// Lays the entries of an edit list on the movie's timeline (ISO/IEC 14496-12 8.6.6): in the track's ticks for readers
// of its media, in the movie's ticks for those who compare what is shown.

/// A part of the media that is shown; all times in the track's timescale, at most 2^60 in size.
struct MediaEdit {
  static constexpr int64_t latestTime = int64_t{1} << 60;

  int64_t presentationStart = 0;
  int64_t mediaStart = 0;
  int64_t mediaEnd = latestTime;  ///< of the last tick shown, the end; `latestTime` where all is shown to the end
};

/// Empty edits advance the clock, the others come out in order, as if all rates were 1. No entries at all show the
/// media as it is. `mediaDuration` tells how far an edit of duration 0 takes the clock. Throws sampleTableError for
/// entries with a timescale of 0, and for times beyond the latest.
std::vector<MediaEdit> mediaEdits(const std::vector<EditListEntry>& entries, uint32_t movieTimescale,
                                  uint32_t trackTimescale, int64_t mediaDuration);

/// One entry on the movie's timeline.
struct PresentedEdit {
  int64_t movieStart = 0;     ///< movie timescale
  int64_t movieDuration = 0;  ///< movie timescale; of a last entry of 0, what reaches to the end of the media
  std::optional<int64_t> mediaStart = {};  ///< track timescale; nothing for an empty edit
  int32_t rate = layout::normalRate;       ///< 16.16; 0 holds one picture, below 0 shows nothing

  bool operator==(const PresentedEdit&) const = default;
};

/// All entries in order, rates included. Times are cut at MediaEdit::latestTime.
std::vector<PresentedEdit> presentedEdits(const std::vector<EditListEntry>& entries, uint32_t movieTimescale,
                                          uint32_t trackTimescale, int64_t mediaEnd);

/// The length of a part of the media on the movie's timeline, in ticks of the movie; rounded up, and cut at
/// MediaEdit::latestTime.
int64_t movieTicks(int64_t mediaLength, uint32_t trackTimescale, uint32_t movieTimescale,
                   int32_t rate = layout::normalRate);

/// Why an edit list counts as absent.
enum class EditListDamage {
  none,
  showsNothing,  ///< no entry shows anything of the track's media
  mediaTimeBelowMinusOne,
  liesBehindMedia,  ///< every entry that is not empty begins at or past the end of the media
};

/// What the entries themselves tell of damage; none for a list without entries.
EditListDamage damageOf(const std::vector<EditListEntry>& entries, int64_t mediaEnd);

}  // namespace tarn
