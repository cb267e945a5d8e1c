#pragma once

#include <chrono>
#include <cstdint>

namespace tarn {

/// Wall-clock time.
using Date = std::chrono::system_clock::time_point;

/// Where the engine reads the date: ids, ages and stored dates come from here. Thread-safe.
class Clock {
 public:
  virtual ~Clock() = default;
  virtual Date now() const = 0;
};

class SystemClock : public Clock {
 public:
  Date now() const override { return std::chrono::system_clock::now(); }
};

/// Whole seconds since 1970-01-01 UTC, truncated.
inline int64_t secondsSince1970(Date date) {
  return std::chrono::duration_cast<std::chrono::seconds>(date.time_since_epoch()).count();
}

/// Nanoseconds since 1970-01-01 UTC, and the date of such a count.
inline int64_t nanosecondsSince1970(Date date) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(date.time_since_epoch()).count();
}
inline Date dateFromNanoseconds(int64_t nanoseconds) {
  return Date(std::chrono::duration_cast<Date::duration>(std::chrono::nanoseconds(nanoseconds)));
}

}  // namespace tarn
