#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/JSObject.h"

namespace tarn {

/// Shows how one download goes on: as one line that is written over on a terminal, as plain lines elsewhere. Writes to
/// standard error, so that standard output holds results alone.
class ProgressPrinter {
 public:
  ProgressPrinter();
  ~ProgressPrinter();
  ProgressPrinter(const ProgressPrinter&) = delete;
  ProgressPrinter& operator=(const ProgressPrinter&) = delete;

  /// Takes one entry of a progress event: a sample of the watcher or a stage update.
  void show(const JSObject& entry);

  /// How far a stage of the repair has come.
  void showStage(const std::string& stage, int64_t percent);

 private:
  using Clock = std::chrono::steady_clock;

  std::string transferLine(const JSObject& entry);
  void print(const std::string& line);

  const bool isTerminal_;
  std::string lastLine_;
  double rate_ = 0;  ///< bytes a second, smoothed
  std::optional<int64_t> lastBytes_;
  Clock::time_point lastTime_;
};

/// "12.3 MB", "950 KB", "17 B": powers of 1000.
std::string byteText(double bytes);

}  // namespace tarn
