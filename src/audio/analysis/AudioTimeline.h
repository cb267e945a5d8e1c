#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "audio/analysis/AudioAnalysis.h"
#include "media/CMTime.h"

namespace tarn {

struct TimelineGap {
  CMTime startPTS;
  CMTime endPTS;
  CMTime duration;
};

/// Where a video track has pictures. All times but the offset count from its first one.
struct VideoTimeline {
  CMTime startPTS = CMTime::zero();
  CMTime endPTS = CMTime::zero();
  CMTime duration = CMTime::zero();      ///< the same value as endPTS
  std::vector<TimelineGap> gaps;         ///< sorted, merged
  CMTime rebaseOffset = CMTime::zero();  ///< time of the first picture in the file
};

/// Where an audio track has sound. All times but the last count from its own first buffer, not from the video's.
struct AudioCoverage {
  CMTime firstPTS = CMTime::zero();
  CMTime lastPTS = CMTime::zero();           ///< end of the last buffer
  std::vector<TimelineGap> gaps;             ///< sorted, merged
  int64_t totalSampleCount = 0;              ///< PCM samples: packets times aacSamplesPerFrame
  int aacSamplesPerFrame = 1024;             ///< 1024 or 2048
  CMTime originalFirstPTS = CMTime::zero();  ///< time of the first buffer in the file
};

enum class SilenceReason { audioStartsLate, audioGapNoVideoGap, videoGapNoAudioGap };

/// The case's name.
std::string_view text(SilenceReason reason);

/// Silence that is missing.
struct SilenceAction {
  CMTime videoPTS;  ///< where on the video's timeline
  CMTime duration;
  int64_t audioSampleOffset = 0;  ///< before which PCM sample of the source, the silence of earlier actions counted
  SilenceReason reason = SilenceReason::audioStartsLate;
};

struct QuickCrossTrackResult {
  std::vector<SilenceAction> silenceActions;
  int64_t videoGaps = 0;
  int64_t audioGaps = 0;
  bool needsProcessing = false;  ///< there are actions

  /// One line for the log.
  std::string description() const;
};

/// For each compressed buffer the PCM samples before it, and its time.
struct PTSMap {
  std::vector<int64_t> offsets;
  std::vector<CMTime> times;
};

/// What the audio alone tells of its gaps.
struct GapDetectionResult {
  std::vector<AudioGap> gaps;
  std::vector<AudioOverlap> overlaps;
  CMTime firstCompressedPTS = CMTime::zero();
  int64_t totalSampleCount = 0;  ///< PCM samples: packets times aacSamplesPerFrame
  PTSMap ptsMap;
  int aacSamplesPerFrame = 1024;
  double sampleBasedDriftMs = 0;
  double containerDurationSeconds = 0;
};

}  // namespace tarn
