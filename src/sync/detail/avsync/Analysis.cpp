#include <array>
#include <cmath>

#include "sync/MP4AVSync.h"
#include "sync/detail/TimeArithmetic.h"
#include "sync/detail/avsync/Buffer.h"

using tarn::tableRows;
using tarn::TableRows;
using tarn::wrappingAdd;
using tarn::wrappingSubtract;
namespace layout = tarn::layout;

namespace {

__extension__ using Int128 = __int128;

constexpr double needsFixMilliseconds = 10.0;

/// The delta that most samples have. Only the first 16 distinct deltas are counted.
int64_t nominalDelta(const TableRows& stts) {
  struct Bin {
    uint32_t delta;
    uint64_t samples;
  };
  std::array<Bin, 16> bins;
  size_t used = 0;
  for (size_t i = 0; i < stts.size() && used < bins.size(); ++i) {
    uint32_t delta = layout::load32(stts.row(i), layout::runValue);
    size_t bin = 0;
    while (bin < used && bins[bin].delta != delta) ++bin;
    if (bin == used) bins[used++] = {delta, 0};
    bins[bin].samples += layout::load32(stts.row(i), layout::runSampleCount);
  }
  Bin best{0, 0};
  for (size_t bin = 0; bin < used; ++bin) {
    if (bins[bin].samples > best.samples) best = bins[bin];
  }
  return best.delta;
}

/// True when the ascending table lists this 1-based sample number.
bool listsSample(const TableRows& stss, int64_t number) {
  for (size_t i = 0; i < stss.size(); ++i) {
    int64_t listed = layout::load32(stss.row(i), layout::syncSampleNumber);
    if (listed >= number) return listed == number;
  }
  return false;
}

}  // namespace

int64_t avsync_rescale(int64_t value, int64_t to_scale, int64_t from_scale) {
  if (value == 0 || from_scale == 0) return 0;
  // The product has at most 127 bits, so neither it nor the sum can overflow.
  Int128 product = static_cast<Int128>(value) * to_scale;
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
  auto table = tableRows(stts, stts_length, layout::fourCC("stts"), layout::runRowSize);
  if (gaps != nullptr && max_gaps >= 1) {
    auto syncSamples = tableRows(stss, stss_length, layout::fourCC("stss"), layout::syncRowSize);
    found.nominal_delta = nominalDelta(table);
    int64_t limit = threshold >= 1 ? threshold : 2 * found.nominal_delta;
    int64_t time = 0;
    uint32_t sampleIndex = 0;
    for (size_t i = 0; i < table.size() && found.gap_count < max_gaps; ++i) {
      uint32_t samples = layout::load32(table.row(i), layout::runSampleCount);
      int64_t delta = layout::load32(table.row(i), layout::runValue);
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
