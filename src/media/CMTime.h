#pragma once

#include <compare>
#include <cstdint>

namespace tarn {

/// A point in time or a length of time: `value` / `timescale` seconds. A time can also be invalid (as made without
/// arguments), indefinite, or infinite. Arithmetic is exact wherever the result fits 64 bits at the common timescale,
/// which is the least common multiple of both, capped at 2^31 - 1; else the result is rounded and says so in its flags,
/// and where even that does not fit it is infinite. Invalid gives invalid, indefinite gives indefinite.
struct CMTime {
  enum Flag : uint32_t {
    validFlag = 1,
    hasBeenRoundedFlag = 2,
    positiveInfinityFlag = 4,
    negativeInfinityFlag = 8,
    indefiniteFlag = 16,
  };

  int64_t value = 0;
  int32_t timescale = 0;  ///< ticks per second
  uint32_t flags = 0;
  int64_t epoch = 0;

  /// The timescale at which times made from seconds are held.
  static constexpr int32_t secondsTimescale = 90000;

  /// A timescale of 0 or below gives an invalid time.
  static constexpr CMTime make(int64_t value, int32_t timescale) {
    return timescale > 0 ? CMTime{value, timescale, validFlag, 0} : CMTime{};
  }
  /// Rounded to the nearest tick. NaN gives an invalid time, what does not fit an infinite one.
  static CMTime makeWithSeconds(double seconds, int32_t preferredTimescale = secondsTimescale);
  static constexpr CMTime zero() { return {0, 1, validFlag, 0}; }
  static constexpr CMTime invalid() { return {}; }
  static constexpr CMTime indefinite() { return {0, 0, validFlag | indefiniteFlag, 0}; }

  constexpr bool isValid() const { return (flags & validFlag) != 0; }
  constexpr bool isIndefinite() const { return isValid() && (flags & indefiniteFlag) != 0; }
  /// Valid, and neither indefinite nor infinite.
  constexpr bool isNumeric() const {
    return isValid() && (flags & (indefiniteFlag | positiveInfinityFlag | negativeInfinityFlag)) == 0;
  }

  /// NaN for an invalid or indefinite time.
  double seconds() const;
};

CMTime operator+(const CMTime& a, const CMTime& b);
CMTime operator-(const CMTime& a, const CMTime& b);

/// Compares as rationals, exactly. Negative infinity comes first, then numbers, positive infinity, indefinite times,
/// and invalid times last.
std::weak_ordering compare(const CMTime& a, const CMTime& b);

/// A part of a timeline.
struct CMTimeRange {
  CMTime start = CMTime::zero();
  CMTime duration = CMTime::zero();
};

}  // namespace tarn
