#include "presentation/detail/LaidEdit.h"

#include <algorithm>

#include "mp4/EditTimeline.h"
#include "platform/Int128.h"

namespace tarn {
namespace {

constexpr int64_t latestNanosecond = int64_t{1} << 61;

int64_t cut(Int128 ticks) {
  return static_cast<int64_t>(std::min<Int128>(ticks, MediaEdit::latestTime));
}

}  // namespace

MovieTime movieTime(int64_t ticks, uint32_t timescale, int32_t rate) {
  // 63 bits times 30 bits times 16 bits.
  Int128 numerator = static_cast<Int128>(ticks) * 1'000'000'000 * layout::normalRate;
  Int128 value = dividedAndRounded(numerator, static_cast<Int128>(timescale) * rate);
  return MovieTime(static_cast<int64_t>(std::clamp<Int128>(value, -latestNanosecond, latestNanosecond)));
}

MovieTime tickOf(uint32_t movieTimescale) {
  return movieTime(1, movieTimescale) + std::chrono::microseconds(1);
}

Ticks mediaTicks(int64_t movieLength, uint32_t movieTimescale, uint32_t timescale, int32_t rate) {
  // 61 bits times 32 bits times 31 bits.
  Int128 numerator = static_cast<Int128>(movieLength) * timescale * rate;
  Int128 denominator = static_cast<Int128>(movieTimescale) * layout::normalRate;
  return {cut(numerator / denominator), cut((numerator + denominator - 1) / denominator)};
}

LaidEdit::LaidEdit(const PresentedEdit& edit, uint32_t movieTimescale, uint32_t timescale)
    : start(movieTime(edit.movieStart, movieTimescale)),
      end(movieTime(edit.movieStart + edit.movieDuration, movieTimescale)),
      mediaStart(*edit.mediaStart),
      rate(edit.rate),
      timescale_(timescale) {
  Ticks length = mediaTicks(edit.movieDuration, movieTimescale, timescale, rate);
  mediaEnd = mediaStart + length.whole;
  mediaEndTouched = mediaStart + length.touched;
}

std::vector<LaidEdit> laidEdits(const std::vector<PresentedEdit>& edits, uint32_t movieTimescale, uint32_t timescale) {
  std::vector<LaidEdit> laid;
  for (const PresentedEdit& edit : edits) {
    if (edit.mediaStart && edit.movieDuration > 0 && edit.rate >= 0) laid.emplace_back(edit, movieTimescale, timescale);
  }
  return laid;
}

}  // namespace tarn
