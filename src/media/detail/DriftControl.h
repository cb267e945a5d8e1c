#pragma once

#include <cstdint>

namespace tarn {

/// Says by how much decoded audio is to be stretched so that it stays on a timeline that runs away from it. A drift is
/// learned, so that what follows it lags by no more than the dead zone. Serves one stream.
class DriftControl {
 public:
  explicit DriftControl(int64_t sampleRate) : sampleRate_(static_cast<double>(sampleRate)) {}

  /// For audio that should start `difference` frames later than it would: the frames by which the next second is to be
  /// longer (shorter below 0), within 2.5 %. 0 for as long as no difference was beyond half a millisecond or
  /// `tick`, the step of the timeline, whichever is more. `position` in frames tells how much time has passed.
  int correction(int64_t difference, int64_t tick, int64_t position);

 private:
  double sampleRate_;
  double learned_ = 0;  ///< part of a second a second
  int64_t lastPosition_ = 0;
  bool isFollowing_ = false;
};

}  // namespace tarn
