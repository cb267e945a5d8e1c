#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "audio/analysis/AudioAnalysis.h"
#include "audio/analysis/AudioTimeline.h"
#include "pipeline/OriginalSyncInfo.h"
#include "platform/FileManager.h"

namespace tarn {

/// What was found out about a file's audio, and what is to be done.
struct AudioFindings {
  AudioAnalysisResult analysis;  ///< of the media's own timeline
  AudioConfigCheck config;
  std::optional<OriginalSyncInfo> originalSyncInfo;  ///< nothing if it could not be read
  std::optional<QuickCrossTrackResult> scan;         ///< made where the audio alone looks whole; for the log
  std::vector<AudioAction> actions;                  ///< of the fast path
  int64_t packetTicks = 0;                           ///< for the fast path: length of a packet, track timescale
  RepairDecision decision;

  std::string codec;  ///< tag of the first sample entry; empty if it cannot be read

  // Words for people, each a sentence without its stop.
  std::optional<std::string> lostChannels;  ///< channels that get lost where it is encoded
  std::optional<std::string> obstacle;      ///< the sound needs a repair and stays as it is, and why

  double syncOffsetSeconds() const { return originalSyncInfo ? originalSyncInfo->syncOffsetSeconds : 0; }
};

/// What the audio alone asks for: `actions` are the changes that its compressed samples would need.
RepairDecision determineRepairDecision(const AudioAnalysisResult& analysisResult, const AudioConfigCheck& configCheck,
                                       std::span<const AudioAction> actions);

/// Analyses a file's audio and decides. Only damage is mended, and sound of another codec than AAC or of several
/// configurations converted: what the edit list says is the truth, and AAC that is whole stays whatever its
/// configuration. Changes nothing and tells its steps in the log. Throws AudioTranscoderError for a file without audio.
AudioFindings decideAudioRepair(FileManager& files, const Path& fileURL);

/// Drift beyond which audio that has gaps or drift is left alone, in milliseconds: its timeline is beyond repair, and
/// a decoder could hang.
inline constexpr double extremeDriftMs = 60000.0;

inline bool hasExtremeDrift(const AudioAnalysisResult& analysis) {
  return (analysis.gapType == GapType::internalGaps || analysis.gapType == GapType::timelineDrift) &&
         analysis.timelineDriftMs > extremeDriftMs;
}

}  // namespace tarn
