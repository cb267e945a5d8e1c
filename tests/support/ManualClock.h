#pragma once

#include "platform/Clock.h"

namespace tarn::test {

/// A clock that stands still until it is moved.
class ManualClock : public Clock {
 public:
  Date now() const override { return now_; }
  void advance(std::chrono::nanoseconds duration) { now_ += std::chrono::duration_cast<Date::duration>(duration); }

 private:
  Date now_{std::chrono::seconds(1'800'000'000)};
};

}  // namespace tarn::test
