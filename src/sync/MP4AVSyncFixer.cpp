#include "sync/MP4AVSyncFixer.h"

#include <tarn/avsync.h>

#include "mp4/BoxLayout.h"
#include "platform/Log.h"
#include "sync/ErrorTypes.h"
#include "sync/detail/EditListRewrite.h"
#include "sync/detail/MovieEdits.h"
#include "sync/detail/SyncFacts.h"
#include "sync/detail/SyncSource.h"

namespace tarn {
namespace {

/// Milliseconds of a time value.
double milliseconds(int64_t value, uint32_t timescale) {
  return static_cast<double>(value) * 1000.0 / timescale;
}

/// Nothing without a usable audio track.
std::optional<SyncFixFacts> readFacts(FileHandle& file, const MP4BoxInfo& moov,
                                      const std::optional<OriginalSyncInfo>& original, bool audioWasTranscoded) {
  SyncFixFacts facts;
  facts.video = parseVideoTrackInfo(file, moov);
  facts.movieTimescale = parseMovieTimescale(file, moov);
  auto audio = parseAudioTrackInfo(file, moov, audioWasTranscoded);
  if (!audio) return std::nullopt;
  facts.audio = *std::move(audio);
  facts.original = original;
  facts.audioWasTranscoded = audioWasTranscoded;
  return facts;
}

void logFacts(const SyncFixFacts& facts) {
  log("MP4AVSyncFixer: Analyzing cross-track sync...");
  log("  Video: timescale={}, first_cts={}, hasCtts={}", facts.video.timescale, facts.video.firstCts,
      facts.video.hasCtts);
  log("  Video: cttsVersion={} (preserving original format)", facts.video.cttsVersion);
  log("  Audio: timescale={}, encoder_delay={}, codec={}", facts.audio.trackTimescale, facts.audio.encoderDelay,
      facts.audio.codec);
  if (!facts.original) return;
  log("MP4AVSyncFixer: Original sync info provided:");
  log("  Original sync offset: {:.1f}ms", facts.original->syncOffsetSeconds * 1000);
  log("  Original video start (movie time): {}", facts.original->videoMediaStartMovieTime);
  log("  Original audio start (movie time): {}", facts.original->audioMediaStartMovieTime);
}

void logAnalysis(const AVSyncCrossTrackAnalysis& analysis) {
  log("MP4AVSyncFixer: Cross-track analysis results:");
  log("  Offset: {:.1f}ms", analysis.offset_ms);
  log("  Video: needs_edit={}, delay={}, media_time={}", analysis.video_needs_edit, analysis.video_delay,
      analysis.video_media_time);
  log("  Audio: needs_edit={}, delay={}, media_time={}", analysis.audio_needs_edit, analysis.audio_delay,
      analysis.audio_media_time);
}

void logStarts(const SyncFixFacts& facts, const SyncFixPlan& plan) {
  const double offset = milliseconds(plan.measuredOffset, facts.movieTimescale);
  if (facts.audioWasTranscoded) {
    log("MP4AVSyncFixer: Audio was transcoded - using cross-track analysis offset: {} (~{:.1f}ms)", plan.measuredOffset,
        offset);
    if (facts.original) {
      log("  (Original sync was {:.1f}ms - already applied during transcoding)",
          facts.original->syncOffsetSeconds * 1000);
    }
  } else if (facts.original) {
    const OriginalSyncInfo& original = *facts.original;
    log("MP4AVSyncFixer: Passthrough audio - using original sync offset: {:.3f}s (~{:.1f}ms)",
        original.syncOffsetSeconds, offset);
    if (original.movieTimescale != facts.movieTimescale) {
      log("  Rescaled from timescale {} to {}", original.movieTimescale, facts.movieTimescale);
    }
    if (original.audioTrackTimescale != facts.audio.trackTimescale) {
      log("MP4AVSyncFixer: Rescaled original audio media_time {} from timescale {} to {} at timescale {}",
          original.audioMediaTime, original.audioTrackTimescale, plan.audioMediaTime, facts.audio.trackTimescale);
    }
    log("MP4AVSyncFixer: Passthrough audio - restoring original audio media_time={} (cross-track computed {})",
        plan.audioMediaTime, plan.analysis.audio_media_time);
  } else {
    log("MP4AVSyncFixer: Using computed sync offset: {} (~{:.1f}ms)", plan.measuredOffset, offset);
  }
  log("MP4AVSyncFixer: Video media_time for edit: {} (~{:.1f}ms)", facts.video.firstCts,
      milliseconds(facts.video.firstCts, facts.video.timescale));
  log("MP4AVSyncFixer: Audio media_time for edit: {} (~{:.1f}ms)", plan.audioMediaTime,
      milliseconds(plan.audioMediaTime, facts.audio.trackTimescale));
  log("MP4AVSyncFixer: Audio track_duration: {} (~{:.1f}ms)", facts.audio.duration,
      milliseconds(facts.audio.duration, facts.audio.trackTimescale));
}

void logOffsetRule(const SyncFixFacts& facts, const SyncFixPlan& plan) {
  switch (plan.offsetRule) {
    case SyncFixPlan::OffsetRule::sourceEmptyEdit:
      log("MP4AVSyncFixer: Preserving original {:.1f}ms empty edit (transcoded={})",
          milliseconds(plan.syncOffset, facts.movieTimescale), facts.audioWasTranscoded);
      break;
    case SyncFixPlan::OffsetRule::aboveTolerance:
      log("MP4AVSyncFixer: Sync offset {:.1f}ms exceeds tolerance, adding empty edit",
          milliseconds(plan.measuredOffset, facts.movieTimescale));
      break;
    case SyncFixPlan::OffsetRule::withinTolerance:
      log("MP4AVSyncFixer: Sync offset {:.1f}ms within ±{:.1f}ms tolerance, no empty edit needed",
          milliseconds(plan.measuredOffset, facts.movieTimescale), syncToleranceMilliseconds);
      break;
  }
}

void logList(const PlannedEditList& list, const char* track, uint32_t movieTimescale, uint32_t trackTimescale) {
  log("MP4AVSyncFixer: Building {} edit list:", track);
  for (size_t i = 0; i < list.entries.size(); ++i) {
    const EditListEntry& entry = list.entries[i];
    if (entry.mediaTime == layout::emptyEdit) {
      log("  Entry {}: EMPTY duration={} (~{:.1f}ms)", i, entry.duration, milliseconds(entry.duration, movieTimescale));
    } else {
      log("  Entry {}: duration={}, media_time={} (~{:.1f}ms)", i, entry.duration, entry.mediaTime,
          milliseconds(entry.mediaTime, trackTimescale));
    }
  }
}

void logLists(const SyncFixFacts& facts, const SyncFixPlan& plan, bool hasVideoList) {
  log("MP4AVSyncFixer: Video playable duration = {} (media_time skipped = {})",
      facts.video.duration - facts.video.firstCts, facts.video.firstCts);
  log("MP4AVSyncFixer: Audio playable duration = {} (media_time skipped = {})",
      facts.audio.duration - plan.audioMediaTime, plan.audioMediaTime);
  logOffsetRule(facts, plan);
  const double offset = milliseconds(plan.syncOffset, facts.movieTimescale);
  if (plan.video) {
    if (plan.syncOffset < 0) {
      log("MP4AVSyncFixer: Audio starts {:.1f}ms before video", -offset);
      log("  Adding empty edit to VIDEO track");
    }
    logList(*plan.video, "video", facts.movieTimescale, facts.video.timescale);
  } else if (hasVideoList) {
    log("MP4AVSyncFixer: Preserving video's existing edit list");
  }
  if (plan.audio) {
    if (plan.syncOffset > 0) log("MP4AVSyncFixer: Adding {:.1f}ms empty edit to AUDIO track", offset);
    logList(*plan.audio, "audio", facts.movieTimescale, facts.audio.trackTimescale);
  }
}

MoovEdits editsOf(const SyncFixFacts& facts, const SyncFixPlan& plan) {
  const auto edts = [](const std::optional<PlannedEditList>& list) {
    return list ? std::optional(edtsOf(list->entries)) : std::nullopt;
  };
  return {.videoEdtsData = edts(plan.video),
          .audioEdtsData = edts(plan.audio),
          .videoTrackDuration = plan.video ? plan.video->trackDuration : 0,
          .audioTrackDuration = plan.audio ? plan.audio->trackDuration : 0,
          .convertedCttsData = std::nullopt,
          .originalCttsOffset = facts.video.cttsOffset,
          .originalCttsSize = facts.video.cttsSize};
}

/// The boxes of the tracks.
struct Tracks {
  MP4BoxInfo video;
  std::optional<MP4BoxInfo> audio;
};

Tracks findTracks(FileHandle& file, const MP4BoxInfo& moov, const MoovEdits& edits) {
  auto video = MP4BoxUtils::findTrack(file, moov, MP4TrackType::video);
  if (!video) throw AVSyncError::corruptedMP4("Video trak box not found");
  auto audio = MP4BoxUtils::findTrack(file, moov, MP4TrackType::audio);
  if (!audio && edits.audioEdtsData) throw AVSyncError::corruptedMP4("Audio trak box not found");
  return {*std::move(video), std::move(audio)};
}

}  // namespace

bool MP4AVSyncFixer::fix(FileManager& files, const Path& fileURL, const CancellationToken* token,
                         AVSyncTimings* timings, const std::optional<OriginalSyncInfo>& original,
                         bool audioWasTranscoded, NamesInTheMaking* names, const SyncFixOrder* order,
                         const RewriteCheck& check) {
  AVSyncTimings unread;
  AVSyncTimings& times = timings ? *timings : unread;
  TimingHelper timer;
  if (token) token->throwIfCancelled();
  std::optional<SyncSource> source(std::in_place, files, fileURL);
  FileHandle& file = source->file();
  const BoxHeader moov = source->moov();
  if (order) {
    times.readMoov = timer.stop();
    source.reset();
    if (token) token->throwIfCancelled();
    timer.start();
    const bool isWritten = rewriteMoovAsOrdered(files, fileURL, moov, *order, names, check);
    times.writeMoov = timer.stop();
    return isWritten;
  }
  const auto facts = readFacts(file, moov, original, audioWasTranscoded);
  source->requireReadable();
  times.readMoov = timer.stop();
  if (!facts) {
    log("MP4AVSyncFixer: No audio track found, skipping (video-only files not processed)");
    return false;
  }

  timer.start();
  logFacts(*facts);
  const SyncFixPlan plan = planSyncFix(*facts);
  times.analyzeSync = timer.stop();
  logAnalysis(plan.analysis);
  logStarts(*facts, plan);
  if (!plan.isNeeded()) {
    log("MP4AVSyncFixer: No edit lists needed, tracks already aligned");
    return false;
  }

  timer.start();
  const bool hasVideoList = !parseVideoEditList(file, moov, MP4TrackType::video).empty();
  logLists(*facts, plan, hasVideoList);
  const MoovEdits edits = editsOf(*facts, plan);
  const Tracks tracks = findTracks(file, moov, edits);
  source->requireReadable();
  log("MP4AVSyncFixer: Track durations (movie timescale): video={}, audio={}", edits.videoTrackDuration,
      edits.audioTrackDuration);
  times.buildEditLists = timer.stop();

  source.reset();
  if (token) token->throwIfCancelled();
  timer.start();
  times.convertCtts = 0;  // composition offsets keep their form
  const bool isWritten = rewriteMoovWithBothEdts(files, fileURL, moov, tracks.video, tracks.audio, edits, names, check);
  times.writeMoov = timer.stop();
  log("MP4AVSyncFixer: Fix applied (video edts: {}, audio edts: {}, ctts: unchanged)",
      edits.videoEdtsData ? "updated"
      : hasVideoList      ? "preserved"
                          : "unchanged",
      edits.audioEdtsData ? "updated" : "unchanged");
  return isWritten;
}

bool MP4AVSyncFixer::rewriteMoovWithBothEdts(FileManager& files, const Path& fileURL, const MP4BoxInfo& moovBox,
                                             const MP4BoxInfo& videoTrakBox,
                                             const std::optional<MP4BoxInfo>& audioTrakBox, const MoovEdits& edits,
                                             NamesInTheMaking* names, const RewriteCheck& check) {
  const auto edit = [&](MovieBox& moov) { applyEdits(moov, moovBox, videoTrakBox, audioTrakBox, edits); };
  return rewriteMoov(files, fileURL, moovBox, edit, names, check);
}

bool MP4AVSyncFixer::rewriteMoovAsOrdered(FileManager& files, const Path& fileURL, const MP4BoxInfo& moovBox,
                                          const SyncFixOrder& order, NamesInTheMaking* names,
                                          const RewriteCheck& check) {
  return rewriteMoov(
      files, fileURL, moovBox, [&](MovieBox& moov) { applyOrder(moov, order); }, names, check);
}

OriginalSyncInfo MP4AVSyncFixer::readOriginalSyncInfo(FileManager& files, const Path& fileURL) {
  return tarn::readOriginalSyncInfo(files, fileURL);
}

uint32_t MP4AVSyncFixer::parseMovieTimescale(FileHandle& file, const MP4BoxInfo& moovBox) {
  return tarn::parseMovieTimescale(file, moovBox);
}

TrackTimingInfo MP4AVSyncFixer::parseVideoTrackInfo(FileHandle& file, const MP4BoxInfo& moovBox) {
  return tarn::parseVideoTrackInfo(file, moovBox);
}

std::optional<AudioTrackTimingInfo> MP4AVSyncFixer::parseAudioTrackInfo(FileHandle& file, const MP4BoxInfo& moovBox,
                                                                        bool audioWasTranscoded) {
  return tarn::parseAudioTrackInfo(file, moovBox, audioWasTranscoded);
}

std::vector<EditListEntry> MP4AVSyncFixer::parseVideoEditList(FileHandle& file, const MP4BoxInfo& moovBox,
                                                              MP4TrackType type) {
  return parseTrackEditList(file, moovBox, type);
}

std::string MP4AVSyncFixer::parseAudioCodec(FileHandle& file, const MP4BoxInfo& mdiaBox) {
  return tarn::parseAudioCodec(file, mdiaBox);
}

int64_t MP4AVSyncFixer::parseMdhdDuration(ByteView mdhd) {
  return tarn::parseMdhdDuration(mdhd);
}

int64_t MP4AVSyncFixer::getDefaultEncoderDelay(const std::string& codec) {
  return avsync_get_default_encoder_delay(codec.c_str());
}

}  // namespace tarn
