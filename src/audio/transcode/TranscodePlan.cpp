#include "audio/transcode/TranscodePlan.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <utility>

#include "audio/AudioTranscoderError.h"
#include "audio/AudioTranscoderState.h"
#include "audio/analysis/AudioCoverage.h"
#include "audio/analysis/AudioFormatFacts.h"
#include "audio/analysis/AudioGapDetection.h"
#include "audio/analysis/SilenceActions.h"
#include "audio/analysis/VideoTimeline.h"
#include "platform/Error.h"
#include "platform/Log.h"

namespace tarn {
namespace {

constexpr double gapThresholdSeconds = 0.5;
constexpr double leastEmptyEdit = 0.01;
constexpr double longestEndSilence = 60;  // seconds, after the last packet of the media

AudioGap gapOf(const SilenceAction& action) {
  return {.position = action.videoPTS, .duration = action.duration, .sampleOffset = action.audioSampleOffset};
}

double capOf(double videoDuration, const SourceTiming& timing) {
  if (timing.audioMediaDurationSeconds && *timing.audioMediaDurationSeconds > 0) {
    log("AudioTranscoder: Using original audio media duration {:.3f}s as cap target (video duration was {:.3f}s)",
        *timing.audioMediaDurationSeconds, videoDuration);
    return *timing.audioMediaDurationSeconds;
  }
  if (timing.audioEmptyEditDelay > leastEmptyEdit) {
    const double cap = std::max(0.0, videoDuration - timing.audioEmptyEditDelay);
    log("AudioTranscoder: Adjusting cap from {:.3f}s to {:.3f}s (accounting for {:.3f}s audio delay)", videoDuration,
        cap, timing.audioEmptyEditDelay);
    return cap;
  }
  return videoDuration;
}

/// A plan as it comes from a detector: positions and the number of samples are those of the source.
struct Findings {
  TranscodePlan plan;
  int64_t totalSampleCount = 0;
};

Findings findByVideo(const AVAsset& asset, const AVAssetTrack& videoTrack, const AVAssetTrack& audioTrack,
                     const SourceTiming& timing, double sampleRate) {
  const auto timeline = buildVideoTimeline(asset, videoTrack, gapThresholdSeconds);
  const auto coverage = buildAudioCoverage(asset, audioTrack, timeline.rebaseOffset, sampleRate, gapThresholdSeconds);
  Findings found{.plan = {.keepsTimeline = true,
                          .videoSeconds = videoTrack.timeRange.duration.seconds(),
                          .firstPTS = coverage.originalFirstPTS},
                 .totalSampleCount = coverage.totalSampleCount};
  for (const SilenceAction& action :
       detectSilenceActions(timeline, coverage, sampleRate, timing.syncOffsetSeconds, gapThresholdSeconds)) {
    found.plan.gaps.push_back(gapOf(action));
  }
  const double cap = capOf(timeline.duration.seconds(), timing);
  if (std::isfinite(cap)) found.plan.cap = cap;
  return found;
}

Findings findByAudio(const AVAsset& asset, const AVAssetTrack& audioTrack, const TranscodeConfig& config) {
  log("AudioTranscoder: Using audio-only gap detection (no video track or fallback)");
  auto result = detectAudioGaps(asset, audioTrack, config.sampleRate, config.padDropThresholdMs);
  return {.plan = {.gaps = std::move(result.gaps),
                   .overlaps = std::move(result.overlaps),
                   .firstPTS = result.firstCompressedPTS},
          .totalSampleCount = result.totalSampleCount};
}

Findings find(const AVAsset& asset, const AVAssetTrack& audioTrack, const SourceTiming& timing,
              const TranscodeConfig& config) {
  const auto videoTracks = asset.tracks(AVMediaType::video);
  if (!videoTracks.empty()) {
    log("AudioTranscoder: Using video-based gap detection (video track found)");
    try {
      return findByVideo(asset, videoTracks.front(), audioTrack, timing, config.sampleRate);
    } catch (const Error& error) {
      log("AudioTranscoder: Video-based detection failed, falling back to audio-only: {}", error.description());
    }
  }
  return findByAudio(asset, audioTrack, config);
}

/// Packets are counted at the source's rate, decoded frames at that of the output.
template <typename Entry>
void sortAtOutputRate(std::vector<Entry>& entries, double ratio) {
  for (Entry& entry : entries) {
    entry.sampleOffset = std::llround(static_cast<double>(entry.sampleOffset) * ratio);
  }
  std::ranges::stable_sort(entries, {}, &Entry::sampleOffset);
}

double gapSeconds(const TranscodePlan& plan) {
  return std::accumulate(plan.gaps.begin(), plan.gaps.end(), 0.0,
                         [](double sum, const AudioGap& gap) { return sum + gap.duration.seconds(); });
}

void logFindings(const TranscodePlan& plan) {
  if (plan.gaps.empty()) {
    log("AudioTranscoder: No gaps detected");
  } else {
    log("AudioTranscoder: Detected {} gaps totaling {:.3f}s", plan.gaps.size(), gapSeconds(plan));
  }
  if (plan.overlaps.empty()) {
    log("AudioTranscoder: No overlaps detected");
  } else {
    const int64_t frames =
        std::accumulate(plan.overlaps.begin(), plan.overlaps.end(), int64_t{0},
                        [](int64_t sum, const AudioOverlap& overlap) { return sum + overlap.framesToDrop; });
    log("AudioTranscoder: Detected {} overlaps totaling {} frames to drop", plan.overlaps.size(), frames);
  }
}

}  // namespace

TranscodePlan analyzeTimelines(const AVAsset& asset, const AVAssetTrack& audioTrack, const SourceTiming& timing,
                               const TranscodeConfig& config) {
  log("AudioTranscoder: Pass 1 - Analyzing timelines...");
  auto [plan, totalSampleCount] = find(asset, audioTrack, timing, config);
  const double describedRate = detectActualSampleRate(audioTrack);
  const double sourceRate = describedRate > 0 ? describedRate : config.sampleRate;
  plan.sourceSeconds = static_cast<double>(totalSampleCount) / sourceRate;
  sortAtOutputRate(plan.gaps, config.sampleRate / sourceRate);
  sortAtOutputRate(plan.overlaps, config.sampleRate / sourceRate);
  logFindings(plan);
  return std::move(plan);
}

TranscodePlan planWholeMedia(const AVAssetTrack& audioTrack, double shownMediaEnd, const TranscodeConfig& config) {
  TranscodePlan plan{.keepsTimeline = true, .sourceSeconds = audioTrack.timeRange.duration.seconds()};
  // The fade at the cap is after what is shown.
  const double wanted = shownMediaEnd + config.fadeDurationMs / 1000;
  plan.cap = std::clamp(wanted, 0.0, std::max(plan.sourceSeconds, 0.0));
  plan.largestPad = wholeFrames(config.sampleRate * longestEndSilence);
  log("AudioTranscoder: Taking the media from its start to {:.3f}s of {:.3f}s", *plan.cap, plan.sourceSeconds);
  return plan;
}

int64_t expectedOutputSamples(const TranscodePlan& plan, double sampleRate) {
  double expected = gapSeconds(plan) + plan.sourceSeconds;
  if (plan.cap && expected > *plan.cap) {
    log("AudioTranscoder: CAPPING output duration from {:.3f}s to video duration {:.3f}s", expected, *plan.cap);
    expected = *plan.cap;
  }
  return wholeFrames(sampleRate * expected);
}

}  // namespace tarn
