#pragma once

#include <algorithm>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Log.h"

namespace tarn::test {

/// Takes the log while it lives. For tests whose log lines come from one thread.
class LogCapture {
 public:
  LogCapture() {
    setLogSink([this](std::string_view line) { lines_.emplace_back(line); });
  }
  ~LogCapture() { setLogSink({}); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const std::vector<std::string>& lines() const { return lines_; }
  void clear() { lines_.clear(); }
  bool contains(std::string_view line) const { return std::ranges::find(lines_, line) != lines_.end(); }

 private:
  std::vector<std::string> lines_;
};

}  // namespace tarn::test
