#include "media/CMTime.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <optional>

#include "platform/Checked.h"
#include "platform/Int128.h"

namespace tarn {
namespace {

constexpr CMTime infinite(bool isNegative) {
  return {0, 0, CMTime::validFlag | (isNegative ? CMTime::negativeInfinityFlag : CMTime::positiveInfinityFlag), 0};
}

/// Classes of times in the order in which they compare.
enum class Kind { negativeInfinity, number, positiveInfinity, indefinite, invalid };

Kind kindOf(const CMTime& time) {
  if (!time.isValid()) return Kind::invalid;
  if (time.isIndefinite()) return Kind::indefinite;
  if (time.flags & CMTime::positiveInfinityFlag) return Kind::positiveInfinity;
  if (time.flags & CMTime::negativeInfinityFlag) return Kind::negativeInfinity;
  return time.timescale > 0 ? Kind::number : Kind::invalid;
}

/// `numerator` / `denominator` seconds, exact at the timescale if possible, else at a lower one at which it fits.
CMTime fitted(Int128 numerator, Int128 denominator, int32_t timescale, uint32_t flags) {
  for (; timescale > 0; timescale /= 2) {
    // At most 96 bits by 31 bits.
    Int128 scaled = numerator * timescale;
    Int128 value = dividedAndRounded(scaled, denominator);
    if (value < std::numeric_limits<int64_t>::min() || value > std::numeric_limits<int64_t>::max()) continue;
    if (value * denominator != scaled) flags |= CMTime::hasBeenRoundedFlag;
    return {static_cast<int64_t>(value), timescale, flags, 0};
  }
  return infinite(numerator < 0);
}

CMTime sumOfNumbers(const CMTime& a, const CMTime& b, int sign) {
  uint32_t flags = CMTime::validFlag | ((a.flags | b.flags) & CMTime::hasBeenRoundedFlag);
  if (a.timescale == b.timescale) {
    auto sum = sign > 0 ? checkedAdd(a.value, b.value) : checkedSubtract(a.value, b.value);
    if (sum) return {*sum, a.timescale, flags, 0};
  }
  int64_t common = std::lcm(int64_t{a.timescale}, int64_t{b.timescale});
  auto timescale = static_cast<int32_t>(std::min<int64_t>(common, std::numeric_limits<int32_t>::max()));
  Int128 numerator = static_cast<Int128>(a.value) * b.timescale + static_cast<Int128>(b.value) * a.timescale * sign;
  return fitted(numerator, static_cast<Int128>(a.timescale) * b.timescale, timescale, flags);
}

CMTime sum(const CMTime& a, const CMTime& b, int sign) {
  Kind left = kindOf(a);
  Kind right = kindOf(b);
  if (left == Kind::number && right == Kind::number) {
    CMTime result = sumOfNumbers(a, b, sign);
    result.epoch = a.epoch;
    return result;
  }
  if (left == Kind::invalid || right == Kind::invalid) return CMTime::invalid();
  if (left == Kind::indefinite || right == Kind::indefinite) return CMTime::indefinite();
  auto infinity = [](Kind kind) {
    return kind == Kind::positiveInfinity ? 1 : kind == Kind::negativeInfinity ? -1 : 0;
  };
  // Infinities of opposite signs have no sum.
  int direction = infinity(left) + sign * infinity(right);
  return direction == 0 ? CMTime::invalid() : infinite(direction < 0);
}

}  // namespace

CMTime CMTime::makeWithSeconds(double seconds, int32_t preferredTimescale) {
  if (std::isnan(seconds) || preferredTimescale <= 0) return invalid();
  double ticks = seconds * preferredTimescale;
  double rounded = std::round(ticks);
  constexpr double beyond = 0x1p63;
  if (!(rounded >= -beyond && rounded < beyond)) return infinite(seconds < 0);
  uint32_t flags = validFlag;
  if (rounded != ticks) flags |= hasBeenRoundedFlag;
  return {static_cast<int64_t>(rounded), preferredTimescale, flags, 0};
}

double CMTime::seconds() const {
  switch (kindOf(*this)) {
    case Kind::number:
      return static_cast<double>(value) / timescale;
    case Kind::positiveInfinity:
      return std::numeric_limits<double>::infinity();
    case Kind::negativeInfinity:
      return -std::numeric_limits<double>::infinity();
    default:
      return std::numeric_limits<double>::quiet_NaN();
  }
}

CMTime operator+(const CMTime& a, const CMTime& b) {
  return sum(a, b, 1);
}

CMTime operator-(const CMTime& a, const CMTime& b) {
  return sum(a, b, -1);
}

std::weak_ordering compare(const CMTime& a, const CMTime& b) {
  Kind left = kindOf(a);
  Kind right = kindOf(b);
  if (left != right || left != Kind::number) return left <=> right;
  Int128 scaledA = static_cast<Int128>(a.value) * b.timescale;
  Int128 scaledB = static_cast<Int128>(b.value) * a.timescale;
  if (scaledA == scaledB) return std::weak_ordering::equivalent;
  return scaledA < scaledB ? std::weak_ordering::less : std::weak_ordering::greater;
}

}  // namespace tarn
