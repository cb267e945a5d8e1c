#include <algorithm>
#include <limits>

#include "mp4/EditList.h"
#include "sync/MP4AVSync.h"
#include "sync/detail/TimeArithmetic.h"
#include "sync/detail/avsync/Buffer.h"

using tarn::wrappingAdd;
using tarn::wrappingSubtract;
namespace layout = tarn::layout;
using layout::emptyEdit;
using layout::normalRate;

namespace {

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
  auto rowSize = static_cast<int64_t>(layout::editRow(isVersion1(entries, count)).size);
  return static_cast<int64_t>(layout::tableHeaderSize) + count * rowSize;
}

}  // namespace

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
  const auto& row = layout::editRow(is64Bit);

  tarn::storeTableHeader(out, static_cast<uint32_t>(size), layout::fourCC("elst"), is64Bit ? 1 : 0,
                         static_cast<uint32_t>(count));
  uint8_t* place = out + layout::tableHeaderSize;
  for (int32_t i = 0; i < count; ++i, place += row.size) {
    layout::store(place, row.duration, static_cast<uint64_t>(entries[i].duration));
    layout::store(place, row.mediaTime, static_cast<uint64_t>(entries[i].media_time));
    layout::store(place, row.mediaRate, static_cast<uint64_t>(entries[i].media_rate));
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
  const tarn::EditListRows rows(tarn::tableBox(buffer, length, layout::fourCC("elst")), tarn::editlist::synced);
  const size_t count = std::min(rows.size(), static_cast<size_t>(max_entries));
  for (size_t i = 0; i < count; ++i) {
    const tarn::EditListEntry entry = rows.entry(i);
    entries[i] = {entry.duration, entry.mediaTime, entry.mediaRate};
  }
  return static_cast<int32_t>(count);
}
