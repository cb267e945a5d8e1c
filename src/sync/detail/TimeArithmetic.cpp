#include "sync/detail/TimeArithmetic.h"

#include <tarn/avsync.h>

#include "platform/Checked.h"
#include "platform/Int128.h"
#include "sync/ErrorTypes.h"

namespace tarn {
namespace {

constexpr double twoToThe63 = 9223372036854775808.0;

bool fits64Bits(double value) {
  return value >= -twoToThe63 && value < twoToThe63;
}

AVSyncError outOfRange() {
  return AVSyncError::analysisError("Time value out of range");
}

}  // namespace

int64_t addTimes(int64_t a, int64_t b) {
  auto sum = checkedAdd(a, b);
  if (!sum) throw outOfRange();
  return *sum;
}

int64_t subtractTimes(int64_t a, int64_t b) {
  auto difference = checkedSubtract(a, b);
  if (!difference) throw outOfRange();
  return *difference;
}

int64_t rescaleTime(int64_t value, uint32_t toScale, uint32_t fromScale) {
  if (fromScale != 0 && !fits64Bits(static_cast<double>(value) * toScale / fromScale)) throw outOfRange();
  return avsync_rescale(value, toScale, fromScale);
}

int64_t rescaleTimeUp(int64_t value, uint32_t toScale, uint32_t fromScale) {
  const int64_t nearest = rescaleTime(value, toScale, fromScale);
  return addTimes(nearest, Int128{nearest} * fromScale < Int128{value} * toScale ? 1 : 0);
}

bool isWithinMillisecond(const ScaledTime& a, const ScaledTime& b) {
  constexpr Int128 milliseconds = 1000;
  const Int128 difference = Int128{a.value} * b.timescale - Int128{b.value} * a.timescale;
  const Int128 scale = Int128{a.timescale} * b.timescale;
  return difference * milliseconds <= scale && difference * milliseconds >= -scale;
}

int64_t truncatedTime(double value) {
  if (!fits64Bits(value)) throw outOfRange();
  return static_cast<int64_t>(value);
}

}  // namespace tarn
