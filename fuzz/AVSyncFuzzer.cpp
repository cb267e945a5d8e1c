#include <vector>

#include "Fuzzing.h"
#include "sync/MP4AVSync.h"

namespace tarn::fuzz {
namespace {

constexpr int32_t outputLimit = 1 << 20;

/// What a writer promises: never more than the capacity, and the size that the sizer told.
template <typename Writer>
void write(int32_t size, Writer&& writer) {
  if (size > outputLimit) return;
  std::vector<uint8_t> out(static_cast<size_t>(size > 0 ? size : 0));
  require(writer(out.data(), static_cast<int32_t>(out.size())) <= static_cast<int32_t>(out.size()));
}

}  // namespace

void run(Input input) {
  const auto time = [&] { return input.number<int64_t>(); };
  const auto scale = [&] { return input.number<uint32_t>(); };
  AVSyncTrackTiming track{time(), time(), time(), time(), scale(), scale(), time()};
  AVSyncVideoTiming video{track.first_dts, track.first_cts, track.timescale, track.movie_timescale, track.duration};
  const uint32_t maxDelta = scale();
  const ByteView box = input.rest();
  if (box.size() > outputLimit) return;
  const auto length = static_cast<int32_t>(box.size());

  std::vector<AVSyncElstEntry> rows(16);
  const int32_t count = avsync_parse_elst_box(box.data(), length, rows.data(), 16);
  require(count >= 0 && count <= 16);
  const int32_t elstSize = avsync_elst_box_size(rows.data(), count);
  write(elstSize,
        [&](uint8_t* out, int32_t capacity) { return avsync_write_elst_box(rows.data(), count, out, capacity); });
  write(elstSize + 8,
        [&](uint8_t* out, int32_t capacity) { return avsync_write_edts_box(rows.data(), count, out, capacity); });
  avsync_analyze(&video, rows.data(), count);
  avsync_analyze_cross_track(&track, &track, track.movie_timescale);

  std::vector<AVSyncGap> gaps(8);
  AVSyncGapSummary summary;
  const int32_t gapCount = avsync_detect_gaps(box.data(), length, box.data(), length,
                                              static_cast<int64_t>(maxDelta) - 1, gaps.data(), 8, &summary);
  require(gapCount >= 0 && gapCount <= 8);
  avsync_build_video_elst(&video, rows.data(), 1);
  avsync_build_track_elst(&track, track.first_dts, track.first_cts, rows.data(), 16);
  avsync_build_multi_edit_elst(gaps.data(), gapCount, &track, track.min_cts, rows.data(), 16);

  int64_t first = 0, smallest = 0;
  avsync_parse_ctts(box.data(), length, &first, &smallest);
  avsync_parse_mdhd_timescale(box.data(), length);
  avsync_parse_mvhd_timescale(box.data(), length);
  avsync_parse_sgpd_roll(box.data(), length);
  write(avsync_ctts_v1_size(box.data(), length), [&](uint8_t* out, int32_t capacity) {
    return avsync_convert_ctts_v0_to_v1(box.data(), length, track.min_cts, out, capacity, nullptr);
  });
  write(avsync_split_stts_size(box.data(), length, maxDelta), [&](uint8_t* out, int32_t capacity) {
    return avsync_split_stts_entries(box.data(), length, maxDelta, out, capacity);
  });
}

}  // namespace tarn::fuzz
