#pragma once

#include <cstdint>
#include <vector>

#include "presentation/Presentation.h"
#include "sync/SyncFixPlan.h"

namespace tarn {

/// The edit lists that a movie needs, exactly. A track that is not named keeps its own.
struct SyncFixOrder {
  struct Track {
    uint32_t trackID = 0;
    PlannedEditList list;  ///< without entries: the track is to have no list
  };

  std::vector<Track> tracks;
  int64_t movieDuration = 0;  ///< of the longest track, movie timescale

  bool isNeeded() const { return !tracks.empty(); }
};

/// Decides which edit lists a movie needs so that every player shows what the presentation says: a track whose list is
/// damaged gets one that shows its whole media in place, and so does the first video track when it has no list, sound
/// beside it and a first picture that is not at 0. Where a list cannot say so (media from below 0 on, an offset that
/// the ticks of the movie miss by more than a millisecond), the track is left without a list, which says the same. A
/// movie without a video track is left alone. No side effects. Throws AVSyncError::analysisError if a time leaves 64
/// bits.
SyncFixOrder orderSyncFix(const Presentation& presentation);

}  // namespace tarn
