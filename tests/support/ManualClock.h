#pragma once

#include <mutex>

#include "platform/Clock.h"

namespace tarn::test {

/// A clock that stands still until it is moved. Thread-safe.
class ManualClock : public Clock {
 public:
  Date now() const override {
    std::lock_guard guard(mutex_);
    return now_;
  }
  void advance(std::chrono::nanoseconds duration) {
    std::lock_guard guard(mutex_);
    now_ += std::chrono::duration_cast<Date::duration>(duration);
  }

 private:
  mutable std::mutex mutex_;
  Date now_{std::chrono::seconds(1'800'000'000)};
};

}  // namespace tarn::test
