#pragma once

#include <cstdint>

namespace tarn {

// Arithmetic on time values that come from a file. Each throws AVSyncError::analysisError where the true result lies
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

/// Truncates towards zero. A value that is no number is out of range.
int64_t truncatedTime(double value);

}  // namespace tarn
