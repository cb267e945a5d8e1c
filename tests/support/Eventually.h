#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace tarn::test {

/// Waits for what happens on another thread, at most a minute; false when it has not happened by then.
inline bool eventually(const std::function<bool()>& condition) {
  for (int i = 0; i < 12000 && !condition(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  return condition();
}

}  // namespace tarn::test
