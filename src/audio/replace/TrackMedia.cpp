#include "audio/replace/TrackMedia.h"

#include <algorithm>
#include <limits>
#include <vector>

#include "audio/AudioTrackReplacerError.h"
#include "mp4/EditList.h"
#include "mp4/SampleTableBuilders.h"
#include "mp4/TableEntries.h"
#include "platform/Checked.h"
#include "platform/Int128.h"
#include "platform/Log.h"

namespace tarn {
namespace {

constexpr uint64_t uint32Max = std::numeric_limits<uint32_t>::max();
constexpr layout::Field firstRunValue{layout::tableHeaderSize + layout::runValue.offset, layout::runValue.width};
constexpr VersionedField firstDelta{firstRunValue, firstRunValue};  ///< of an `stts`

// --- Times ---

/// What the entries of an `stts` add up to.
struct SampleRuns {
  uint64_t entries = 0;
  uint64_t totalSamples = 0;
  uint64_t totalDuration = 0;
};

/// Nothing for a table that ends before its entries.
std::optional<SampleRuns> sumRuns(ByteView stts) {
  const TableEntries entries(stts, layout::runEntrySize, TableEntries::HugeCount::isCut);
  SampleRuns runs{.entries = layout::load(stts.data(), layout::entryCount)};
  if (entries.size() < runs.entries) return std::nullopt;
  for (size_t i = 0; i < entries.size(); ++i) {
    const uint64_t samples = layout::load(entries.entry(i), layout::runSampleCount);
    const auto duration = checkedMultiply(samples, layout::load(entries.entry(i), layout::runValue));
    const auto sum = duration ? checkedAdd(runs.totalDuration, *duration) : std::nullopt;
    if (!sum) throw AudioTrackReplacerError::corruptedMP4("stts duration does not fit 64 bits");
    runs.totalSamples += samples;
    runs.totalDuration = *sum;
  }
  return runs;
}

// --- The edit list ---

/// A track's clock beside that of its movie.
struct Clocks {
  uint32_t movie;
  uint32_t track;
};

using Entries = std::vector<EditListEntry>;

/// A duration has no sign in the file.
uint64_t durationOf(const EditListEntry& entry) {
  return static_cast<uint64_t>(entry.duration);
}

/// To the nearest tick; half a tick goes up. Nothing if the result does not fit.
std::optional<int64_t> rescaled(int64_t value, uint32_t from, uint32_t to) {
  if (from == 0) return std::nullopt;
  const Int128 result = (Int128{value} * to + from / 2) / from;
  if (result > std::numeric_limits<int64_t>::max()) return std::nullopt;
  return static_cast<int64_t>(result);
}

int64_t requireRescaled(int64_t value, uint32_t from, uint32_t to) {
  const auto result = rescaled(value, from, to);
  if (!result) throw AudioTrackReplacerError::corruptedMP4("A time of the edit list does not fit 64 bits");
  return *result;
}

/// The box that `old` becomes: its version and flags, but version 1 where an entry needs it.
Bytes writeEntries(ByteView old, const Entries& entries) {
  const bool isLong =
      layout::load(old.data(), layout::version) == 1 || std::ranges::any_of(entries, [](const EditListEntry& e) {
        return e.mediaTime > std::numeric_limits<int32_t>::max();
      });
  const auto& fields = layout::editEntry(isLong);
  Bytes box(layout::tableHeaderSize + entries.size() * fields.size);
  std::ranges::copy(old.first(layout::tableHeaderSize), box.begin());
  if (isLong) layout::store(box.data(), layout::version, 1);
  layout::store(box.data(), layout::entryCount, entries.size());
  uint8_t* at = box.data() + layout::tableHeaderSize;
  for (const EditListEntry& entry : entries) {
    layout::store(at, fields.duration, durationOf(entry));
    layout::store(at, fields.mediaTime, static_cast<uint64_t>(entry.mediaTime));
    layout::store(at, fields.mediaRate, static_cast<uint64_t>(entry.mediaRate));
    at += fields.size;
  }
  return box;
}

/// Cuts the last entry to the end of the media, where it would show more than a packet of nothing.
void cutToMedia(EditListEntry& last, const Clocks& clocks, int64_t mediaEnd, int64_t packet) {
  if (last.isEmpty() || last.duration == 0 || last.mediaTime >= mediaEnd) return;
  const auto duration = static_cast<int64_t>(std::min<uint64_t>(durationOf(last), INT64_MAX));
  const auto shown = rescaled(duration, clocks.movie, clocks.track);
  if (shown && *shown - packet <= mediaEnd - last.mediaTime) return;
  last.duration = requireRescaled(mediaEnd - last.mediaTime, clocks.track, clocks.movie);
  log("  Cut the last edit to the end of the audio: {} -> {}", duration, last.duration);
}

/// How long the track is shown; an entry of 0 at the end reaches to the end of the media.
uint64_t durationOf(const Entries& entries, const Clocks& clocks, uint64_t mediaDuration) {
  uint64_t sum = 0;
  for (const EditListEntry& entry : entries) {
    sum += std::min(durationOf(entry), std::numeric_limits<uint64_t>::max() - sum);
  }
  const EditListEntry& last = entries.back();
  if (last.duration != 0 || last.isEmpty()) return sum;
  const auto skipped =
      static_cast<uint64_t>(requireRescaled(std::max<int64_t>(last.mediaTime, 0), clocks.track, clocks.movie));
  return sum + (mediaDuration - std::min(skipped, mediaDuration));
}

/// The track's edit list for new media; returns how long the track is shown.
uint64_t fitEditList(MovieBox& trak, const MovieBox& newTrak, uint32_t oldTimescale, const Clocks& clocks,
                     uint64_t mediaDuration) {
  MovieBox* elst = trak.find({"edts", "elst"});
  if (!elst) return mediaDuration;
  const Bytes old = elst->plainBytes();
  Entries entries = readEditList(old, editlist::replaced);
  if (entries.empty()) return mediaDuration;
  for (EditListEntry& entry : entries) {
    if (entry.mediaTime > 0) entry.mediaTime = requireRescaled(entry.mediaTime, oldTimescale, clocks.track);
  }
  const uint64_t mediaEnd = headerDurationField.load(newTrak.find({"mdia", "mdhd"})).value_or(0);
  const MovieBox* stts = newTrak.find({"mdia", "minf", "stbl", "stts"});
  cutToMedia(entries.back(), clocks, static_cast<int64_t>(std::min<uint64_t>(mediaEnd, INT64_MAX)),
             static_cast<int64_t>(firstDelta.load(stts).value_or(0)));
  *elst = MovieBox::of(writeEntries(old, entries));
  log("  Kept the {} edits of the audio track", entries.size());
  return durationOf(entries, clocks, mediaDuration);
}

/// Puts clock, sample table and data references of `newMdia` into the track; all of it where the track's own is
/// damaged.
void putMdia(MovieBox& trak, const MovieBox& newMdia) {
  MovieBox* mdhd = trak.find({"mdia", "mdhd"});
  MovieBox* minf = trak.find({"mdia", "minf"});
  const MovieBox* newMdhd = newMdia.find({"mdhd"});
  if (minf && headerDurationField.load(mdhd)) {
    storeField(headerTimescaleField, mdhd, "mdhd.timescale", headerTimescaleField.load(newMdhd).value_or(0));
    storeField(headerDurationField, mdhd, "mdhd.duration", headerDurationField.load(newMdhd).value_or(0));
    for (std::string_view type : {"dinf", "stbl"}) {
      if (const MovieBox* box = newMdia.find({"minf", type})) minf->put(*box);
    }
  } else {
    trak.put(newMdia);
  }
  MovieBox* stts = trak.find({"mdia", "minf", "stbl", "stts"});
  if (!stts) return logLine("  normalizeAudioStts: stts not found, skipping");
  if (const auto single = normalizeAudioStts(*stts)) *stts = MovieBox::of(*single);
}

}  // namespace

void storeField(const VersionedField& field, MovieBox* box, std::string_view label, uint64_t value) {
  if (const auto change = field.store(box, value)) {
    log("  Updated {}: {} -> {}", label, change->before, change->after);
  } else {
    log("  Warning: no place for {}", label);
  }
}

std::optional<Bytes> normalizeAudioStts(const MovieBox& box) {
  const Bytes stts = box.plainBytes();
  if (stts.size() < layout::tableHeaderSize) {
    logLine("  normalizeAudioStts: stts too small, skipping");
    return std::nullopt;
  }
  const auto runs = sumRuns(stts);
  if (!runs) {
    logLine("  normalizeAudioStts: stts truncated");
    return std::nullopt;
  }
  const auto [entries, samples, duration] = *runs;
  if (samples == 0) {
    logLine("  normalizeAudioStts: no samples recorded");
    return std::nullopt;
  }
  if (duration % samples != 0) {
    log("  normalizeAudioStts: duration {} not divisible by samples {}, leaving stts as-is", duration, samples);
    return std::nullopt;
  }
  const uint64_t delta = duration / samples;
  if (delta == 0) {
    logLine("  normalizeAudioStts: computed zero delta, skipping");
    return std::nullopt;
  }
  if (samples > uint32Max || delta > uint32Max) {
    throw AudioTrackReplacerError::corruptedMP4("stts does not fit an entry of 32 bits");
  }
  log("  normalizeAudioStts: collapsed {} entries into 1 (delta={})", entries, delta);
  return buildSimpleSttsBox(static_cast<uint32_t>(samples), static_cast<uint32_t>(delta));
}

void putMedia(MovieBox& trak, const MovieBox& newTrak, uint32_t movieTimescale, uint64_t mediaDuration,
              bool keepsEditList) {
  const auto timescaleOf = [](const MovieBox& track) {
    return static_cast<uint32_t>(headerTimescaleField.load(track.find({"mdia", "mdhd"})).value_or(0));
  };
  const uint32_t oldTimescale = timescaleOf(trak), newTimescale = timescaleOf(newTrak);
  if (!keepsEditList || oldTimescale == 0 || newTimescale == 0 || movieTimescale == 0) trak.removeAll("edts");
  const uint64_t shown = fitEditList(trak, newTrak, oldTimescale, {movieTimescale, newTimescale}, mediaDuration);
  if (const MovieBox* newMdia = newTrak.find({"mdia"})) putMdia(trak, *newMdia);
  storeField(tkhdDurationField, trak.find({"tkhd"}), "tkhd.duration", shown);
}

}  // namespace tarn
