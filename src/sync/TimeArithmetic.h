#pragma once

#include <cstdint>

namespace tarn {

// Arithmetic on time values that come from a file. Each throws AVSyncError::analysisError where the true result lies
// outside 64 bits.

int64_t addTimes(int64_t a, int64_t b);
int64_t subtractTimes(int64_t a, int64_t b);

/// avsync_rescale.
int64_t rescaleTime(int64_t value, uint32_t toScale, uint32_t fromScale);

/// Truncates towards zero. A value that is no number is out of range.
int64_t truncatedTime(double value);

}  // namespace tarn
