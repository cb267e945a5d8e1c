#pragma once

#include <tarn/avsync.h>

#include <optional>
#include <string>
#include <vector>

#include "pipeline/OriginalSyncInfo.h"
#include "sync/detail/TrackTimingInfo.h"

namespace tarn {

/// What the sync rules go by.
struct SyncFixFacts {
  uint32_t movieTimescale = 0;
  TrackTimingInfo video;
  AudioTrackTimingInfo audio;
  std::optional<OriginalSyncInfo> original;  ///< the source's facts from before any repair, if they were captured
  bool audioWasTranscoded = false;           ///< the audio track is not the source's any more
};

/// An edit list to be written.
struct PlannedEditList {
  std::vector<EditListEntry> entries = {};
  int64_t trackDuration = 0;  ///< of the track with the list, movie timescale
  std::string reason = {};    ///< why the track needs it, for people
  std::string remedy = {};    ///< what it does, likewise; of an order alone
};

/// What the sync rules make of a file.
struct SyncFixPlan {
  /// What decided on the empty edit.
  enum class OffsetRule {
    sourceEmptyEdit,  ///< the source's audio began with an empty edit, which is kept as stored
    aboveTolerance,   ///< the offset is kept
    withinTolerance,  ///< the offset is dropped
  };

  AVSyncCrossTrackAnalysis analysis{};
  int64_t measuredOffset = 0;  ///< audio start minus video start before `offsetRule`, movie timescale
  int64_t syncOffset = 0;      ///< the same after it
  OffsetRule offsetRule = OffsetRule::withinTolerance;
  int64_t audioMediaTime = 0;  ///< where the audio's edit starts, audio timescale
  int64_t videoPlayable = 0;   ///< movie timescale
  int64_t audioPlayable = 0;   ///< movie timescale
  std::optional<PlannedEditList> video;
  std::optional<PlannedEditList> audio;

  bool isNeeded() const { return video || audio; }
};

/// Largest offset between the tracks that is let go, in milliseconds.
inline constexpr double syncToleranceMilliseconds = 50.0;

/// Decides which edit list each track needs. No side effects. Throws AVSyncError::analysisError if a time leaves 64
/// bits.
SyncFixPlan planSyncFix(const SyncFixFacts& facts);

}  // namespace tarn
