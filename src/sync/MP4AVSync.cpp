#include <tarn/avsync.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>

#include "mp4/EditList.h"
#include "mp4/TableEntries.h"
#include "mp4/TimeHeader.h"
#include "platform/Int128.h"
#include "sync/detail/TimeArithmetic.h"

using tarn::ByteView;
using tarn::TableEntries;
using tarn::wrappingAdd;
using tarn::wrappingSubtract;
namespace layout = tarn::layout;
using layout::emptyEdit;
using layout::normalRate;

namespace {

// Boxes in buffers of C callers: a pointer, which may be null, and a length, which may be negative.

/// True if the buffer holds at least `minimum` bytes of a box of this type.
bool isBox(const uint8_t* buffer, int32_t length, uint32_t type, size_t minimum) {
  return buffer != nullptr && length >= 0 && static_cast<size_t>(length) >= minimum &&
         layout::load32(buffer, layout::boxType) == type;
}

/// The bytes of a box of this type; none if the buffer does not hold at least the 16 bytes before a table's
/// entries.
ByteView tableBox(const uint8_t* buffer, int32_t length, uint32_t type) {
  if (!isBox(buffer, length, type, layout::tableHeaderSize)) return {};
  return {buffer, static_cast<size_t>(length)};
}

/// The entries of such a table.
TableEntries tableEntries(const uint8_t* buffer, int32_t length, uint32_t type, size_t entrySize) {
  return {tableBox(buffer, length, type), entrySize, TableEntries::HugeCount::isNone};
}

/// Writes the 16 bytes before a table's entries.
void storeTableHeader(uint8_t* out, uint32_t size, uint32_t type, uint8_t version, uint32_t entryCount) {
  layout::store(out, layout::boxSize, size);
  layout::store(out, layout::boxType, type);
  layout::store(out, layout::versionAndFlags, layout::versionWord(version));
  layout::store(out, layout::entryCount, entryCount);
}

// --- Analysis ---

constexpr double needsFixMilliseconds = 10.0;

/// The delta that most samples have. Only the first 16 distinct deltas are counted.
int64_t nominalDelta(const TableEntries& stts) {
  struct Bin {
    uint32_t delta;
    uint64_t samples;
  };
  std::array<Bin, 16> bins;
  size_t used = 0;
  for (size_t i = 0; i < stts.size() && used < bins.size(); ++i) {
    uint32_t delta = layout::load32(stts.entry(i), layout::runValue);
    size_t bin = 0;
    while (bin < used && bins[bin].delta != delta) ++bin;
    if (bin == used) bins[used++] = {delta, 0};
    bins[bin].samples += layout::load32(stts.entry(i), layout::runSampleCount);
  }
  Bin best{0, 0};
  for (size_t bin = 0; bin < used; ++bin) {
    if (bins[bin].samples > best.samples) best = bins[bin];
  }
  return best.delta;
}

/// True if the ascending table lists this 1-based sample number.
bool listsSample(const TableEntries& stss, int64_t number) {
  for (size_t i = 0; i < stss.size(); ++i) {
    int64_t listed = layout::load32(stss.entry(i), layout::syncSampleNumber);
    if (listed >= number) return listed == number;
  }
  return false;
}

// --- Edit lists ---

int64_t toMovieTime(const AVSyncTrackTiming& track, int64_t value) {
  return avsync_rescale(value, track.movie_timescale, track.timescale);
}

bool needs64Bit(const AVSyncElstEntry& entry) {
  using Limits = std::numeric_limits<int32_t>;
  return entry.duration > Limits::max() || entry.media_time < Limits::min() || entry.media_time > Limits::max();
}

/// The version of the box; the same for whoever asks for its size or writes it.
bool isVersion1(const AVSyncElstEntry* entries, int32_t count) {
  return std::any_of(entries, entries + count, needs64Bit);
}

int64_t elstSize(const AVSyncElstEntry* entries, int32_t count) {
  auto entrySize = static_cast<int64_t>(layout::editEntry(isVersion1(entries, count)).size);
  return static_cast<int64_t>(layout::tableHeaderSize) + count * entrySize;
}

// --- Tables ---

constexpr uint32_t cttsType = layout::fourCC("ctts");
constexpr uint32_t sttsType = layout::fourCC("stts");

struct EncoderDelay {
  const char* codec;
  int64_t samples;
};
constexpr std::array<EncoderDelay, 6> encoderDelays{
    {{"mp4a", 2112}, {".mp3", 529}, {"Opus", 312}, {"ac-3", 256}, {"ac3 ", 256}, {"ec-3", 256}}};

uint32_t timescaleOf(const uint8_t* buffer, int32_t length, uint32_t type, size_t minimum) {
  if (!isBox(buffer, length, type, minimum)) return 0;
  const auto clock = tarn::parseTimeHeader({buffer, static_cast<size_t>(length)}, tarn::LongHeader::isVersion1);
  return clock ? clock->timescale : 0;
}

/// A table box's size for this many 8-byte entries; -1 when it does not fit the result.
int32_t runTableSize(uint64_t entries) {
  constexpr uint64_t limit = std::numeric_limits<int32_t>::max();
  if (entries > (limit - layout::tableHeaderSize) / layout::runEntrySize) return -1;
  return static_cast<int32_t>(layout::tableHeaderSize + entries * layout::runEntrySize);
}

uint8_t* storeRun(uint8_t* entry, uint32_t sampleCount, uint32_t value) {
  layout::store(entry, layout::runSampleCount, sampleCount);
  layout::store(entry, layout::runValue, value);
  return entry + layout::runEntrySize;
}

}  // namespace

int64_t avsync_rescale(int64_t value, int64_t to_scale, int64_t from_scale) {
  if (value == 0 || from_scale == 0) return 0;
  // The product has at most 127 bits, so neither it nor the sum can overflow.
  tarn::Int128 product = static_cast<tarn::Int128>(value) * to_scale;
  return static_cast<int64_t>((product + from_scale / 2) / from_scale);
}

AVSyncAnalysis avsync_analyze(const AVSyncVideoTiming* video, const AVSyncElstEntry* entries, int32_t count) {
  AVSyncAnalysis result{};
  if (video == nullptr) return result;
  result.first_pts = wrappingAdd(video->first_dts, video->first_cts);
  for (int32_t i = 0; entries != nullptr && i < count; ++i) {
    if (entries[i].media_time >= 0) {
      result.elst_media_time = entries[i].media_time;
      break;
    }
  }
  if (video->timescale == 0) return result;
  auto ticks = static_cast<double>(wrappingSubtract(result.elst_media_time, result.first_pts));
  result.offset_ms = ticks / static_cast<double>(video->timescale) * 1000.0;
  result.needs_fix = std::fabs(result.offset_ms) > needsFixMilliseconds;
  return result;
}

AVSyncCrossTrackAnalysis avsync_analyze_cross_track(const AVSyncTrackTiming* video, const AVSyncTrackTiming* audio,
                                                    uint32_t movie_timescale) {
  AVSyncCrossTrackAnalysis result{};
  if (video == nullptr || audio == nullptr || movie_timescale == 0) return result;

  int64_t videoPts = avsync_rescale(wrappingAdd(video->first_dts, video->first_cts), movie_timescale, video->timescale);
  int64_t audioPts = avsync_rescale(audio->encoder_delay, movie_timescale, audio->timescale);
  result.offset_ms = static_cast<double>(wrappingSubtract(videoPts, audioPts)) * 1000.0 / movie_timescale;

  result.video_media_time = video->min_cts < 0 ? video->min_cts : video->first_cts;
  int64_t audioMediaTime =
      wrappingAdd(audio->encoder_delay, avsync_rescale(video->first_cts, audio->timescale, video->timescale));
  if (audioMediaTime < 0) audioMediaTime = 0;
  if (audioMediaTime >= audio->duration) audioMediaTime = audio->duration > 0 ? audio->duration - 1 : 0;
  result.audio_media_time = audioMediaTime;

  result.video_needs_edit = video->first_cts != 0 || video->min_cts < 0;
  result.audio_needs_edit = result.audio_media_time > 0;
  return result;
}

int32_t avsync_detect_gaps(const uint8_t* stts, int32_t stts_length, const uint8_t* stss, int32_t stss_length,
                           int64_t threshold, AVSyncGap* gaps, int32_t max_gaps, AVSyncGapSummary* summary) {
  AVSyncGapSummary found{};
  auto table = tableEntries(stts, stts_length, sttsType, layout::runEntrySize);
  if (gaps != nullptr && max_gaps >= 1) {
    auto syncSamples = tableEntries(stss, stss_length, layout::fourCC("stss"), layout::syncEntrySize);
    found.nominal_delta = nominalDelta(table);
    int64_t limit = threshold >= 1 ? threshold : 2 * found.nominal_delta;
    int64_t time = 0;
    uint32_t sampleIndex = 0;
    for (size_t i = 0; i < table.size() && found.gap_count < max_gaps; ++i) {
      uint32_t samples = layout::load32(table.entry(i), layout::runSampleCount);
      int64_t delta = layout::load32(table.entry(i), layout::runValue);
      if (delta > limit) {
        auto index = static_cast<int32_t>(sampleIndex);
        bool isSync = listsSample(syncSamples, static_cast<int64_t>(index) + 1);
        gaps[found.gap_count++] = {time, delta - found.nominal_delta, index, static_cast<uint8_t>(isSync)};
        found.total_excess = wrappingAdd(found.total_excess, delta - found.nominal_delta);
      }
      time = wrappingAdd(time, static_cast<int64_t>(uint64_t{samples} * static_cast<uint64_t>(delta)));
      sampleIndex += samples;
    }
  }
  if (summary != nullptr) *summary = found;
  return found.gap_count;
}

int32_t avsync_build_video_elst(const AVSyncVideoTiming* video, AVSyncElstEntry* entries, int32_t allow_empty_edit) {
  if (video == nullptr || entries == nullptr) return 0;
  int64_t pts =
      avsync_rescale(wrappingAdd(video->first_dts, video->first_cts), video->movie_timescale, video->timescale);
  int64_t playable = avsync_rescale(video->duration, video->movie_timescale, video->timescale);
  if (pts >= 1 && allow_empty_edit != 0) {
    entries[0] = {pts, emptyEdit, normalRate};
    entries[1] = {playable, video->first_cts, normalRate};
    return 2;
  }
  if (pts >= 0) {
    entries[0] = {playable, video->first_cts, normalRate};
  } else {
    int64_t mediaTime = video->first_dts >= 0 ? video->first_cts : wrappingSubtract(0, video->first_dts);
    entries[0] = {wrappingSubtract(playable, pts), mediaTime, normalRate};
  }
  return 1;
}

int32_t avsync_build_track_elst(const AVSyncTrackTiming* track, int64_t empty_duration, int64_t media_time,
                                AVSyncElstEntry* entries, int32_t max_entries) {
  if (track == nullptr || entries == nullptr || max_entries < 2) return 0;
  int64_t remaining = track->duration;
  if (media_time >= 1) {
    remaining = wrappingSubtract(remaining, media_time);
    if (remaining < 1) return 0;
  }
  int64_t playable = toMovieTime(*track, remaining);
  if (media_time < emptyEdit) {
    int64_t lead = toMovieTime(*track, wrappingSubtract(0, media_time));
    entries[0] = {wrappingAdd(empty_duration, lead), emptyEdit, normalRate};
    entries[1] = {playable, 0, normalRate};
    return 2;
  }
  int32_t count = 0;
  if (empty_duration >= 1) entries[count++] = {empty_duration, emptyEdit, normalRate};
  entries[count++] = {playable, media_time, normalRate};
  return count;
}

int32_t avsync_build_multi_edit_elst(const AVSyncGap* gaps, int32_t gap_count, const AVSyncTrackTiming* track,
                                     int64_t media_time, AVSyncElstEntry* entries, int32_t max_entries) {
  if (track == nullptr || entries == nullptr || max_entries < 1 || gap_count < 0) return 0;
  if (gaps == nullptr || gap_count == 0) return avsync_build_track_elst(track, 0, media_time, entries, max_entries);
  int64_t runStart = media_time;
  int32_t count = 0;
  for (int32_t i = 0; i <= gap_count && count < max_entries; ++i) {
    int64_t runEnd = i < gap_count ? gaps[i].position : track->duration;
    if (runEnd > runStart) {
      entries[count++] = {toMovieTime(*track, wrappingSubtract(runEnd, runStart)), runStart, normalRate};
    }
    if (i < gap_count) runStart = wrappingAdd(gaps[i].position, gaps[i].excess);
  }
  return count;
}

int32_t avsync_elst_box_size(const AVSyncElstEntry* entries, int32_t count) {
  if (entries == nullptr || count < 1) return 0;
  int64_t size = elstSize(entries, count);
  return size <= std::numeric_limits<int32_t>::max() ? static_cast<int32_t>(size) : 0;
}

int32_t avsync_write_elst_box(const AVSyncElstEntry* entries, int32_t count, uint8_t* out, int32_t capacity) {
  if (entries == nullptr || out == nullptr || count < 1) return -1;
  int64_t size = elstSize(entries, count);
  if (size > capacity) return -1;
  bool is64Bit = isVersion1(entries, count);
  const auto& entry = layout::editEntry(is64Bit);

  storeTableHeader(out, static_cast<uint32_t>(size), layout::fourCC("elst"), is64Bit ? 1 : 0,
                   static_cast<uint32_t>(count));
  uint8_t* place = out + layout::tableHeaderSize;
  for (int32_t i = 0; i < count; ++i, place += entry.size) {
    layout::store(place, entry.duration, static_cast<uint64_t>(entries[i].duration));
    layout::store(place, entry.mediaTime, static_cast<uint64_t>(entries[i].media_time));
    layout::store(place, entry.mediaRate, static_cast<uint64_t>(entries[i].media_rate));
  }
  return static_cast<int32_t>(size);
}

int32_t avsync_write_edts_box(const AVSyncElstEntry* entries, int32_t count, uint8_t* out, int32_t capacity) {
  constexpr auto header = static_cast<int32_t>(layout::boxHeaderSize);
  if (out == nullptr || capacity < header) return -1;
  int32_t inner = avsync_write_elst_box(entries, count, out + header, capacity - header);
  if (inner < 0) return -1;
  layout::store(out, layout::boxSize, layout::boxHeaderSize + static_cast<uint64_t>(inner));
  layout::store(out, layout::boxType, layout::fourCC("edts"));
  return inner + header;
}

int32_t avsync_parse_elst_box(const uint8_t* buffer, int32_t length, AVSyncElstEntry* entries, int32_t max_entries) {
  if (entries == nullptr || max_entries < 1) return 0;
  const tarn::EditListEntries stored(tableBox(buffer, length, layout::fourCC("elst")), tarn::editlist::synced);
  const size_t count = std::min(stored.size(), static_cast<size_t>(max_entries));
  for (size_t i = 0; i < count; ++i) {
    const tarn::EditListEntry entry = stored.entry(i);
    entries[i] = {entry.duration, entry.mediaTime, entry.mediaRate};
  }
  return static_cast<int32_t>(count);
}

int64_t avsync_parse_stts_first_dts(const uint8_t* /*buffer*/, int32_t /*length*/) {
  return 0;
}

void avsync_parse_ctts(const uint8_t* buffer, int32_t length, int64_t* first_offset, int64_t* min_offset) {
  int64_t first = 0;
  int64_t smallest = 0;
  auto table = tableEntries(buffer, length, cttsType, layout::runEntrySize);
  for (size_t i = 0; i < table.size(); ++i) {
    int64_t offset = layout::loadSigned(table.entry(i), layout::runValue);
    if (i == 0) first = smallest = offset;
    smallest = std::min(smallest, offset);
  }
  if (first_offset != nullptr) *first_offset = first;
  if (min_offset != nullptr) *min_offset = smallest;
}

uint32_t avsync_parse_mdhd_timescale(const uint8_t* buffer, int32_t length) {
  return timescaleOf(buffer, length, layout::fourCC("mdhd"), layout::timeHeader32.timescale.end());
}

uint32_t avsync_parse_mvhd_timescale(const uint8_t* buffer, int32_t length) {
  return timescaleOf(buffer, length, layout::fourCC("mvhd"), layout::timeHeader32.duration.end());
}

int64_t avsync_parse_sgpd_roll(const uint8_t* buffer, int32_t length) {
  if (!isBox(buffer, length, layout::fourCC("sgpd"), layout::groupDescriptionHeader(0).entryCount.end())) return 0;
  if (layout::load32(buffer, layout::groupingType) != layout::fourCC("roll")) return 0;
  auto holds = [&](const layout::Field& field) { return field.end() <= static_cast<size_t>(length); };

  auto version = layout::load32(buffer, layout::version);
  auto header = layout::groupDescriptionHeader(version);
  if (!holds(header.entryCount) || layout::load(buffer, header.entryCount) == 0) return 0;
  layout::Field rollDistance{header.entryCount.end(), 2};
  if (version != 0 && layout::load(buffer, header.defaultLength) == 0) {
    layout::Field descriptionLength{header.entryCount.end(), 4};
    if (!holds(descriptionLength)) return 0;
    rollDistance.offset = descriptionLength.end();
  }
  if (!holds(rollDistance)) return 0;
  return std::max<int64_t>(0, -layout::loadSigned(buffer, rollDistance));
}

int64_t avsync_get_default_encoder_delay(const char* codec) {
  if (codec == nullptr) return 0;
  for (const auto& entry : encoderDelays) {
    if (std::strncmp(codec, entry.codec, 4) == 0) return entry.samples;
  }
  return 0;
}

int32_t avsync_get_ctts_version(const uint8_t* buffer, int32_t length) {
  if (!isBox(buffer, length, cttsType, layout::versionAndFlags.end())) return -1;
  return static_cast<int32_t>(layout::load(buffer, layout::version));
}

int32_t avsync_ctts_v1_size(const uint8_t* buffer, int32_t length) {
  if (!isBox(buffer, length, cttsType, layout::tableHeaderSize)) return -1;
  return runTableSize(layout::load(buffer, layout::entryCount));
}

int32_t avsync_convert_ctts_v0_to_v1(const uint8_t* buffer, int32_t length, int64_t shift, uint8_t* out,
                                     int32_t capacity, AVSyncCttsConversionInfo* info) {
  int32_t size = avsync_ctts_v1_size(buffer, length);
  if (size < 0 || out == nullptr || size > capacity) return -1;
  uint32_t entryCount = layout::load32(buffer, layout::entryCount);
  if (info != nullptr) *info = {1, shift, entryCount, static_cast<uint32_t>(size)};

  storeTableHeader(out, static_cast<uint32_t>(size), cttsType, 1, entryCount);
  auto table = tableEntries(buffer, length, cttsType, layout::runEntrySize);
  uint8_t* place = out + layout::tableHeaderSize;
  for (size_t i = 0; i < table.size(); ++i) {
    uint32_t offset = layout::load32(table.entry(i), layout::runValue) - static_cast<uint32_t>(shift);
    place = storeRun(place, layout::load32(table.entry(i), layout::runSampleCount), offset);
  }
  return size;
}

int32_t avsync_split_stts_size(const uint8_t* buffer, int32_t length, uint32_t max_delta) {
  if (max_delta == 0 || !isBox(buffer, length, sttsType, layout::tableHeaderSize)) return -1;
  auto table = tableEntries(buffer, length, sttsType, layout::runEntrySize);
  uint64_t entries = 0;
  for (size_t i = 0; i < table.size(); ++i) {
    uint64_t samples = layout::load(table.entry(i), layout::runSampleCount);
    uint64_t delta = layout::load(table.entry(i), layout::runValue);
    entries += delta <= max_delta ? 1 : samples * ((delta + max_delta - 1) / max_delta);
    if (runTableSize(entries) < 0) return -1;  // before further entries could overflow the sum
  }
  return runTableSize(entries);
}

int32_t avsync_split_stts_entries(const uint8_t* buffer, int32_t length, uint32_t max_delta, uint8_t* out,
                                  int32_t capacity) {
  int32_t size = avsync_split_stts_size(buffer, length, max_delta);
  if (size < 0 || out == nullptr || size > capacity) return -1;
  auto entries = (static_cast<size_t>(size) - layout::tableHeaderSize) / layout::runEntrySize;
  storeTableHeader(out, static_cast<uint32_t>(size), sttsType, 0, static_cast<uint32_t>(entries));

  auto table = tableEntries(buffer, length, sttsType, layout::runEntrySize);
  uint8_t* place = out + layout::tableHeaderSize;
  for (size_t i = 0; i < table.size(); ++i) {
    uint32_t samples = layout::load32(table.entry(i), layout::runSampleCount);
    uint32_t delta = layout::load32(table.entry(i), layout::runValue);
    if (delta <= max_delta) {
      place = storeRun(place, samples, delta);
      continue;
    }
    for (uint32_t sample = 0; sample < samples; ++sample) {
      uint32_t rest = delta;
      for (; rest > max_delta; rest -= max_delta) place = storeRun(place, 1, max_delta);
      place = storeRun(place, 1, rest);
    }
  }
  return size;
}
