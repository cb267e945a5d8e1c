#pragma once

#include <cstdint>

namespace tarn {

// Sums and differences of 64-bit time values that wrap, where the sign bit's overflow would be undefined.
constexpr int64_t wrappingAdd(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}
constexpr int64_t wrappingSubtract(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}

// Arithmetic on time values that come from a file. Each throws AVSyncError::analysisError if the true result is
// outside 64 bits.

int64_t addTimes(int64_t a, int64_t b);
int64_t subtractTimes(int64_t a, int64_t b);

/// avsync_rescale.
int64_t rescaleTime(int64_t value, uint32_t toScale, uint32_t fromScale);

/// Rescales and rounds up; the value must not be negative.
int64_t rescaleTimeUp(int64_t value, uint32_t toScale, uint32_t fromScale);

/// A time with the timescale that it is in, which must not be 0.
struct ScaledTime {
  int64_t value;
  uint32_t timescale;
};
bool isWithinMillisecond(const ScaledTime& a, const ScaledTime& b);

/// Truncates towards zero. A value that is not a number is out of range.
int64_t truncatedTime(double value);

}  // namespace tarn
