#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

namespace tarn {

/// A number of frames or ticks without its fraction, held within 2^62; what is not a number counts as none.
inline int64_t wholeFrames(double frames) {
  constexpr double most = 0x1p62;
  return std::isnan(frames) ? 0 : static_cast<int64_t>(std::clamp(frames, -most, most));
}

/// The nearest whole number, held within the same bounds.
inline int64_t nearestFrame(double frames) {
  return wholeFrames(std::round(frames));
}

/// The timescale of times that count frames at this rate in Hz; 0 for what is no rate.
inline int32_t frameTimescale(double sampleRate) {
  const bool isRate = sampleRate >= 1 && sampleRate <= std::numeric_limits<int32_t>::max();
  return isRate ? static_cast<int32_t>(sampleRate) : 0;
}

}  // namespace tarn
