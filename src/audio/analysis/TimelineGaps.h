#pragma once

#include <algorithm>
#include <compare>
#include <span>
#include <vector>

#include "audio/analysis/AudioTimeline.h"

namespace tarn {

/// Gaps no further apart than this are one.
inline constexpr double gapMergeToleranceSeconds = 0.05;

/// A step of the drift above this is a gap.
inline constexpr double driftStepSeconds = 0.02;

/// The order of times.
struct Earlier {
  bool operator()(const CMTime& a, const CMTime& b) const { return std::is_lt(compare(a, b)); }
};

inline void sortByStart(std::vector<TimelineGap>& gaps) {
  std::ranges::stable_sort(gaps, Earlier(), &TimelineGap::startPTS);
}

inline double totalSeconds(std::span<const TimelineGap> gaps) {
  double total = 0;
  for (const TimelineGap& gap : gaps) total += gap.duration.seconds();
  return total;
}

}  // namespace tarn
