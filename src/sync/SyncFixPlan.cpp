#include "sync/SyncFixPlan.h"

#include "mp4/BoxLayout.h"
#include "sync/detail/TimeArithmetic.h"

namespace tarn {
namespace {

using layout::emptyEdit;
using layout::normalRate;

AVSyncCrossTrackAnalysis analyze(const SyncFixFacts& facts) {
  const AVSyncTrackTiming video{.first_dts = facts.video.firstDts,
                                .first_cts = facts.video.firstCts,
                                .min_cts = facts.video.minCts,
                                .encoder_delay = 0,
                                .timescale = facts.video.timescale,
                                .movie_timescale = facts.movieTimescale,
                                .duration = facts.video.duration};
  const AVSyncTrackTiming audio{.first_dts = 0,
                                .first_cts = 0,
                                .min_cts = 0,
                                .encoder_delay = facts.audio.encoderDelay,
                                .timescale = facts.audio.trackTimescale,
                                .movie_timescale = facts.movieTimescale,
                                .duration = facts.audio.duration};
  return avsync_analyze_cross_track(&video, &audio, facts.movieTimescale);
}

/// The captured media time in the present audio timescale.
int64_t capturedAudioMediaTime(const SyncFixFacts& facts) {
  const OriginalSyncInfo& original = *facts.original;
  if (original.audioTrackTimescale == facts.audio.trackTimescale) return original.audioMediaTime;
  return truncatedTime(static_cast<double>(original.audioMediaTime) * facts.audio.trackTimescale /
                       original.audioTrackTimescale);
}

/// Where the tracks start, as far as it is known: a replaced audio track starts at its first sample, since its offset
/// went into its samples.
void chooseStarts(const SyncFixFacts& facts, SyncFixPlan& plan) {
  plan.measuredOffset = plan.analysis.audio_delay;
  if (facts.audioWasTranscoded) {
    plan.audioMediaTime = 0;
  } else if (facts.original) {
    // In seconds, so that it does not matter whether the movie timescale has changed since.
    plan.measuredOffset = truncatedTime(facts.original->syncOffsetSeconds * facts.movieTimescale);
    plan.audioMediaTime = capturedAudioMediaTime(facts);
  } else {
    plan.audioMediaTime = plan.analysis.audio_media_time;
  }
}

void decideOffset(const SyncFixFacts& facts, SyncFixPlan& plan) {
  const auto* sourceEntries = facts.original ? &facts.original->audioEditList : nullptr;
  if (sourceEntries && !sourceEntries->empty() && sourceEntries->front().mediaTime == emptyEdit) {
    plan.offsetRule = SyncFixPlan::OffsetRule::sourceEmptyEdit;
    plan.syncOffset = sourceEntries->front().duration;
    return;
  }
  auto tolerance = static_cast<int64_t>(facts.movieTimescale * syncToleranceMilliseconds / 1000.0);
  bool isAbove = plan.measuredOffset > tolerance || plan.measuredOffset < -tolerance;
  plan.offsetRule = isAbove ? SyncFixPlan::OffsetRule::aboveTolerance : SyncFixPlan::OffsetRule::withinTolerance;
  plan.syncOffset = isAbove ? plan.measuredOffset : 0;
}

/// The media from `mediaTime` on, after so much empty time.
PlannedEditList editList(int64_t emptyDuration, int64_t playable, int64_t mediaTime, std::string reason) {
  PlannedEditList list{.entries = {}, .trackDuration = playable, .reason = std::move(reason)};
  if (emptyDuration > 0) {
    list.entries.push_back({emptyDuration, emptyEdit, normalRate});
    list.trackDuration = addTimes(emptyDuration, playable);
  }
  list.entries.push_back({playable, mediaTime, normalRate});
  return list;
}

std::string videoReason(const SyncFixFacts& facts, const SyncFixPlan& plan) {
  if (plan.syncOffset < 0) return "audio starts before video";
  if (facts.video.firstCts != 0) return "the first frame has a composition offset";
  return facts.video.minCts < 0 ? "a composition offset is negative" : "an offset within the tolerance is dropped";
}

std::string audioReason(const SyncFixPlan& plan) {
  if (plan.syncOffset > 0) return "audio starts after video";
  if (plan.audioMediaTime > 0) return "the audio's first samples are skipped";
  return "the audio starts at its first sample";
}

}  // namespace

SyncFixPlan planSyncFix(const SyncFixFacts& facts) {
  SyncFixPlan plan;
  plan.analysis = analyze(facts);
  chooseStarts(facts, plan);

  // Decided by the measured offset: a list that is called for stays called for when the offset is dropped.
  bool buildAudio = plan.measuredOffset != 0 || plan.audioMediaTime > 0 || plan.analysis.audio_needs_edit;
  bool buildVideo = plan.analysis.video_needs_edit || facts.video.firstCts >= 1 || plan.measuredOffset < 0;
  if (!buildAudio && !buildVideo) return plan;

  plan.videoPlayable = rescaleTime(subtractTimes(facts.video.duration, facts.video.firstCts), facts.movieTimescale,
                                   facts.video.timescale);
  plan.audioPlayable = rescaleTime(subtractTimes(facts.audio.duration, plan.audioMediaTime), facts.movieTimescale,
                                   facts.audio.trackTimescale);
  decideOffset(facts, plan);
  if (buildVideo) {
    plan.video =
        editList(subtractTimes(0, plan.syncOffset), plan.videoPlayable, facts.video.firstCts, videoReason(facts, plan));
  }
  if (buildAudio) {
    plan.audio = editList(plan.syncOffset, plan.audioPlayable, plan.audioMediaTime, audioReason(plan));
  }
  return plan;
}

}  // namespace tarn
