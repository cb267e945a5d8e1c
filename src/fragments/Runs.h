#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <limits>

namespace tarn {

/// A list in which neighbours are often equal, held as runs. It never moves what it holds, so that growing costs no
/// second copy.
template <typename T>
class Runs {
 public:
  struct Run {
    T value;
    uint32_t count;
  };

  uint64_t size() const { return size_; }
  bool isEmpty() const { return size_ == 0; }
  const T& last() const { return runs_.back().value; }
  auto begin() const { return runs_.begin(); }
  auto end() const { return runs_.end(); }
  size_t runCount() const { return runs_.size(); }
  const Run& run(size_t index) const { return runs_[index]; }

  void append(T value, uint64_t count = 1) {
    size_ += count;
    while (count > 0) {
      if (runs_.empty() || !(runs_.back().value == value) || runs_.back().count == mostInRun) {
        runs_.push_back({value, 0});
      }
      const uint64_t taken = std::min<uint64_t>(count, mostInRun - runs_.back().count);
      runs_.back().count += static_cast<uint32_t>(taken);
      count -= taken;
    }
  }

  /// Forgets all but the first so many.
  void truncate(uint64_t count) {
    while (size_ > count) {
      const uint64_t gone = std::min<uint64_t>(size_ - count, runs_.back().count);
      runs_.back().count -= static_cast<uint32_t>(gone);
      size_ -= gone;
      if (runs_.back().count == 0) runs_.pop_back();
    }
  }

  /// Makes it exactly so long; what is missing has this value.
  void resize(uint64_t count, T missing) {
    truncate(count);
    append(missing, count - size_);
  }

 private:
  static constexpr uint32_t mostInRun = std::numeric_limits<uint32_t>::max();

  std::deque<Run> runs_;
  uint64_t size_ = 0;
};

}  // namespace tarn
