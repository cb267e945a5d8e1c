#pragma once

#include <optional>
#include <vector>

#include "audio/AudioAnalysis.h"
#include "audio/AudioTimeline.h"
#include "pipeline/OriginalSyncInfo.h"
#include "platform/FileManager.h"

namespace tarn {

/// What was found out about a file's audio, and what is to be done.
struct AudioFindings {
  AudioAnalysisResult analysis;
  AudioConfigCheck config;
  std::optional<OriginalSyncInfo> originalSyncInfo;  ///< nothing where it could not be read
  std::optional<QuickCrossTrackResult> scan;         ///< made where the audio alone looks whole
  std::vector<AudioAction> actions;
  RepairDecision decision;

  double syncOffsetSeconds() const { return originalSyncInfo ? originalSyncInfo->syncOffsetSeconds : 0; }
};

/// Analyses a file's audio and decides. Changes nothing and never fails; tells its steps in the log. The file must have
/// an audio track.
AudioFindings decideAudioRepair(FileManager& files, const Path& fileURL);

/// Drift beyond which audio that has holes or drift is left alone, in milliseconds: its timeline is beyond repair, and
/// a decoder could hang.
inline constexpr double extremeDriftMs = 60000.0;

inline bool hasExtremeDrift(const AudioAnalysisResult& analysis) {
  return (analysis.gapType == GapType::internalGaps || analysis.gapType == GapType::timelineDrift) &&
         analysis.timelineDriftMs > extremeDriftMs;
}

}  // namespace tarn
