#include <tarn/avsync.h>

#include <algorithm>
#include <array>

#include "Fuzzing.h"

namespace tarn::fuzz {
namespace {

constexpr int32_t outputLimit = 1 << 20;
constexpr int32_t room = 16;

/// A writer gives what its sizer told, and nothing where that told of nothing to write.
template <typename Writer>
void write(int32_t size, Writer&& writer) {
  if (size > outputLimit) return;
  Bytes out(static_cast<size_t>(std::max(size, 0)));
  require(writer(out.data(), static_cast<int32_t>(out.size())) == (size > 0 ? size : -1));
}

}  // namespace

void run(Input input) {
  const auto time = [&] { return input.number<int64_t>(); };
  const auto scale = [&] { return input.number<uint32_t>(); };
  const AVSyncTrackTiming track{time(), time(), time(), time(), scale(), scale(), time()};
  const AVSyncVideoTiming video{track.first_dts, track.first_cts, track.timescale, track.movie_timescale,
                                track.duration};
  const uint32_t maxDelta = scale();
  const ByteView bytes = input.rest();
  if (bytes.size() > outputLimit) return;
  const uint8_t* box = bytes.data();
  const auto length = static_cast<int32_t>(bytes.size());

  std::array<AVSyncElstEntry, room> rows{};
  const int32_t count = avsync_parse_elst_box(box, length, rows.data(), room);
  require(count >= 0 && count <= room);
  const int32_t elstSize = avsync_elst_box_size(rows.data(), count);
  write(elstSize, [&](auto... out) { return avsync_write_elst_box(rows.data(), count, out...); });
  write(elstSize > 0 ? elstSize + 8 : 0,
        [&](auto... out) { return avsync_write_edts_box(rows.data(), count, out...); });
  avsync_analyze(&video, rows.data(), count);
  avsync_analyze_cross_track(&track, &track, track.movie_timescale);

  std::array<AVSyncGap, room> gaps{};
  AVSyncGapSummary summary;
  const int32_t gapCount =
      avsync_detect_gaps(box, length, box, length, int64_t{maxDelta} - 1, gaps.data(), room, &summary);
  require(gapCount >= 0 && gapCount <= room);
  avsync_build_video_elst(&video, rows.data(), 1);
  avsync_build_track_elst(&track, track.first_dts, track.first_cts, rows.data(), room);
  avsync_build_multi_edit_elst(gaps.data(), gapCount, &track, track.min_cts, rows.data(), room);

  int64_t first = 0, smallest = 0;
  avsync_parse_ctts(box, length, &first, &smallest);
  avsync_parse_mdhd_timescale(box, length);
  avsync_parse_mvhd_timescale(box, length);
  avsync_parse_sgpd_roll(box, length);
  write(avsync_ctts_v1_size(box, length),
        [&](auto... out) { return avsync_convert_ctts_v0_to_v1(box, length, track.min_cts, out..., nullptr); });
  write(avsync_split_stts_size(box, length, maxDelta),
        [&](auto... out) { return avsync_split_stts_entries(box, length, maxDelta, out...); });
}

}  // namespace tarn::fuzz
