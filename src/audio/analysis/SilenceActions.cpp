#include "audio/analysis/SilenceActions.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <optional>
#include <set>

#include "audio/analysis/AudioCoverage.h"
#include "audio/analysis/TimelineGaps.h"
#include "audio/analysis/VideoTimeline.h"
#include "audio/transcode/FrameCounts.h"
#include "platform/Error.h"
#include "platform/Log.h"

namespace tarn {
namespace {

constexpr double crossTrackSampleRate = 48000.0;
constexpr double crossTrackThreshold = 0.5;  // seconds
constexpr double smallGap = 0.1;             // seconds

/// The offset of the tracks by which gaps are matched, and the silence that a late start asks for. (Case 5)
struct StartOffset {
  double offset = 0;  // seconds
  std::optional<SilenceAction> action;
};

StartOffset findStartOffset(const CMTime& videoStart, double measured, double syncOffset) {
  if (std::abs(syncOffset) > 0.01) {
    log("AudioTranscoder: Using ORIGINAL sync offset = {:.3f}s for gap detection (measured raw offset was {:.3f}s)",
        syncOffset, measured);
    log("AudioTranscoder: Case 5 - Original offset {:.3f}s will be restored via edit list (not prepending silence)",
        syncOffset);
    return {syncOffset, std::nullopt};
  }
  if (std::abs(measured) > 0.001) {
    log("AudioTranscoder: Using measured sync offset = {:.3f}s for gap detection (no original offset provided)",
        measured);
  }
  if (std::abs(syncOffset) >= 0.01 || !(measured > 0.1)) return {measured, std::nullopt};
  log("AudioTranscoder: Case 5 - Audio starts {:.3f}s after video (inserting silence)", measured);
  return {measured, SilenceAction{videoStart, CMTime::makeWithSeconds(measured), 0, SilenceReason::audioStartsLate}};
}

std::vector<TimelineGap> withinVideo(const std::vector<TimelineGap>& gaps, double videoDuration) {
  std::vector<TimelineGap> kept;
  for (const TimelineGap& gap : gaps) {
    const double start = gap.startPTS.seconds();
    if (start > videoDuration) {
      log("AudioTranscoder: Filtering out audio gap at {:.3f}s (beyond video duration {:.3f}s)", start, videoDuration);
    } else {
      kept.push_back(gap);
    }
  }
  if (kept.size() < gaps.size()) {
    log("AudioTranscoder: Filtered {} audio gaps beyond video duration", gaps.size() - kept.size());
  }
  return kept;
}

struct Matches {
  std::vector<TimelineGap> unmatchedVideo;
  std::vector<TimelineGap> unmatchedAudio;
  size_t matched = 0;
};

Matches match(const std::vector<TimelineGap>& video, const std::vector<TimelineGap>& audio, double offset,
              double tolerance) {
  Matches matches;
  std::set<size_t> matchedAudio;
  size_t i = 0, j = 0;
  while (i < video.size() && j < audio.size()) {
    const double difference = video[i].startPTS.seconds() - (offset + audio[j].startPTS.seconds());
    if (std::abs(difference) < tolerance) {
      matchedAudio.insert(j++);
      ++i;
    } else if (difference >= tolerance) {
      ++j;
    } else {
      matches.unmatchedVideo.push_back(video[i++]);
    }
  }
  matches.unmatchedVideo.insert(matches.unmatchedVideo.end(), video.begin() + static_cast<ptrdiff_t>(i), video.end());
  for (size_t k = 0; k < audio.size(); ++k) {
    if (!matchedAudio.contains(k)) matches.unmatchedAudio.push_back(audio[k]);
  }
  matches.matched = matchedAudio.size();
  return matches;
}

/// Gaps of the video alone stay: the audio's timeline is trusted.
void tellOfVideoGaps(const std::vector<TimelineGap>& gaps) {
  size_t small = 0;
  for (const TimelineGap& gap : gaps) {
    const double start = gap.startPTS.seconds(), length = gap.duration.seconds();
    if (length >= smallGap) {
      log("AudioTranscoder: Case 3 - SKIPPING video gap at {:.3f}s (dur={:.3f}s) - audio is continuous, trusting audio "
          "timeline",
          start, length);
    } else {
      ++small;
      log("AudioTranscoder: Case 3 - SKIPPING small video gap at {:.3f}s (dur={:.3f}s < 0.1s threshold)", start,
          length);
    }
  }
  if (gaps.empty()) return;
  log("AudioTranscoder: Case 3 - Skipped {} video-only gaps ({:.3f}s total): {} small (<0.1s), {} large (audio "
      "continuous)",
      gaps.size(), totalSeconds(gaps), small, gaps.size() - small);
}

/// Gaps of the audio alone are the decoder's business: it keeps the timeline.
void tellOfAudioGaps(const std::vector<TimelineGap>& gaps) {
  std::vector<TimelineGap> real;
  std::ranges::copy_if(gaps, std::back_inserter(real),
                       [](const TimelineGap& gap) { return gap.duration.isNumeric() && gap.duration.seconds() > 0; });
  if (real.empty()) return;
  log("AudioTranscoder: Case 2 - Skipping {} audio-only gaps ({:.3f}s total) - already handled by AVAssetReader "
      "decoder",
      real.size(), totalSeconds(real));
}

/// Sorts the actions and counts the silence of each into the places of those after it.
std::vector<SilenceAction> placed(std::vector<SilenceAction> actions, double sampleRate) {
  constexpr int64_t packet = 1024;
  std::ranges::stable_sort(actions, Earlier(), &SilenceAction::videoPTS);
  std::vector<SilenceAction> result;
  int64_t inserted = 0;
  for (SilenceAction action : actions) {
    const double seconds = action.duration.seconds();
    if (!std::isfinite(seconds) || seconds < 0) {
      log("AudioTranscoder: Skipping invalid silence action with duration={}", seconds);
      continue;
    }
    action.audioSampleOffset += inserted;
    const auto samples = wholeFrames(seconds * sampleRate);
    inserted += (samples + packet - 1) / packet * packet;
    result.push_back(action);
  }
  return result;
}

void tell(const std::vector<SilenceAction>& actions) {
  const auto count = [&](SilenceReason reason) { return std::ranges::count(actions, reason, &SilenceAction::reason); };
  double total = 0;
  for (const SilenceAction& action : actions) total += action.duration.seconds();
  log("AudioTranscoder: Silence actions={} (case2={}, case3={}, case5={}), totalInserted={:.3f}s", actions.size(),
      count(SilenceReason::audioGapNoVideoGap), count(SilenceReason::videoGapNoAudioGap),
      count(SilenceReason::audioStartsLate), total);
  for (const SilenceAction& action : actions) {
    log("  {}: pos={:.3f}s, dur={:.3f}s, offset={}", text(action.reason), action.videoPTS.seconds(),
        action.duration.seconds(), action.audioSampleOffset);
  }
}

}  // namespace

std::vector<SilenceAction> detectSilenceActions(const VideoTimeline& videoTimeline, const AudioCoverage& audioCoverage,
                                                double sampleRate, double syncOffsetSeconds,
                                                double gapMatchToleranceSeconds) {
  const double measured = (audioCoverage.originalFirstPTS - videoTimeline.rebaseOffset).seconds();
  const StartOffset start = findStartOffset(videoTimeline.startPTS, measured, syncOffsetSeconds);
  std::vector<TimelineGap> video = videoTimeline.gaps;
  std::vector<TimelineGap> audio = withinVideo(audioCoverage.gaps, videoTimeline.duration.seconds());
  sortByStart(video);
  sortByStart(audio);
  const Matches matches = match(video, audio, start.offset, gapMatchToleranceSeconds);
  tellOfVideoGaps(matches.unmatchedVideo);
  tellOfAudioGaps(matches.unmatchedAudio);
  std::vector<SilenceAction> actions;
  if (start.action) actions.push_back(*start.action);
  actions = placed(std::move(actions), sampleRate);
  log("AudioTranscoder: Gap match stats (syncOffset={:.3f}s, audioStartInVideoTimeline={:.3f}s)", syncOffsetSeconds,
      start.offset);
  log("AudioTranscoder: Video gaps={} (total={:.3f}s), Audio gaps={} (total={:.3f}s)", video.size(),
      totalSeconds(video), audio.size(), totalSeconds(audio));
  log("AudioTranscoder: Matched video gaps={}, Unmatched video gaps={}, Unmatched audio gaps={}", matches.matched,
      matches.unmatchedVideo.size(), matches.unmatchedAudio.size());
  tell(actions);
  return actions;
}

QuickCrossTrackResult quickCrossTrackScan(const AVAsset& asset, double syncOffsetSeconds) {
  const auto videoTracks = asset.tracks(AVMediaType::video);
  if (videoTracks.empty()) {
    logLine("AudioTranscoder.quickCrossTrackScan: No video track found");
    return {};
  }
  const auto audioTracks = asset.tracks(AVMediaType::audio);
  if (audioTracks.empty()) {
    logLine("AudioTranscoder.quickCrossTrackScan: No audio track found");
    return {};
  }
  QuickCrossTrackResult result;
  try {
    const VideoTimeline timeline = buildVideoTimeline(asset, videoTracks.front(), crossTrackThreshold);
    const AudioCoverage coverage = buildAudioCoverage(asset, audioTracks.front(), timeline.rebaseOffset,
                                                      crossTrackSampleRate, crossTrackThreshold);
    result.silenceActions =
        detectSilenceActions(timeline, coverage, crossTrackSampleRate, syncOffsetSeconds, crossTrackThreshold);
    result.videoGaps = static_cast<int64_t>(timeline.gaps.size());
    result.audioGaps = static_cast<int64_t>(coverage.gaps.size());
    result.needsProcessing = !result.silenceActions.empty();
  } catch (const Error& failure) {
    log("AudioTranscoder.quickCrossTrackScan: Error - {}", failure.description());
    return {};
  }
  log("AudioTranscoder.quickCrossTrackScan: {} silence actions detected", result.silenceActions.size());
  for (const SilenceAction& action : result.silenceActions) {
    log("  {}: pos={:.3f}s, dur={:.3f}s", text(action.reason), action.videoPTS.seconds(), action.duration.seconds());
  }
  return result;
}

std::vector<AudioAction> convertToAudioActions(std::span<const SilenceAction> silenceActions, int32_t audioTimescale,
                                               int aacSamplesPerFrame) {
  std::vector<AudioAction> actions;
  for (const SilenceAction& action : silenceActions) {
    actions.push_back({AudioAction::Kind::insertSilence, action.audioSampleOffset / aacSamplesPerFrame,
                       wholeFrames(action.duration.seconds() * audioTimescale), std::string(text(action.reason))});
  }
  return actions;
}

}  // namespace tarn
