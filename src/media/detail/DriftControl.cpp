#include "media/detail/DriftControl.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace tarn {
namespace {

constexpr double smallestDifference = 0.0005;  // seconds
constexpr double responseTime = 0.12;          // seconds in which a difference is made up for
constexpr double mostCorrection = 0.025;
constexpr double longestStep = 0.1;  // seconds between two looks that count

/// The part of a difference that is beyond the dead zone.
double beyond(double difference, double deadZone) {
  return std::copysign(std::max(std::abs(difference) - deadZone, 0.0), difference);
}

}  // namespace

/// A proportional part and an integral one, damped so that it does not swing.
int DriftControl::correction(int64_t difference, int64_t tick, int64_t position) {
  const double deadZone = std::max(smallestDifference, static_cast<double>(tick) / sampleRate_);
  const double error = beyond(static_cast<double>(difference) / sampleRate_, deadZone);
  const double passed = static_cast<double>(position - std::exchange(lastPosition_, position)) / sampleRate_;
  isFollowing_ = isFollowing_ || error != 0;
  if (!isFollowing_) return 0;
  learned_ += error / (4 * responseTime * responseTime) * std::clamp(passed, 0.0, longestStep);
  learned_ = std::clamp(learned_, -mostCorrection, mostCorrection);
  const double correction = std::clamp(error / responseTime + learned_, -mostCorrection, mostCorrection);
  return static_cast<int>(std::lround(correction * sampleRate_));
}

}  // namespace tarn
