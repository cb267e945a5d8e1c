#pragma once

#include <tarn/transfer.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "platform/JSObject.h"

namespace tarn {

/// How one piece of work goes on, as a line.
struct ProgressLine {
  std::string text;
  std::string what;                     ///< of what it tells: lines of the same differ by how far that has come
  std::optional<double> fraction = {};  ///< of a transfer, from 0 to 1
};

/// How one download goes on.
class DownloadProgress {
 public:
  /// Takes one entry of a progress event: a sample of the watcher or a stage update. Nothing if it says nothing.
  std::optional<ProgressLine> line(const JSObject& entry);

  /// The server has not answered as it should, and is asked again.
  static ProgressLine line(const TransferState::Retry& retry);

  /// How far a stage of the repair has come.
  static ProgressLine line(const std::string& stage, int64_t percent);

 private:
  using Clock = std::chrono::steady_clock;

  ProgressLine transferLine(const JSObject& entry);

  double rate_ = 0;  ///< bytes a second, smoothed
  std::optional<int64_t> lastBytes_;
  Clock::time_point lastTime_;
};

/// Shows how work goes on: on a terminal as one line of its width that is written over, elsewhere as plain lines, a few
/// a minute. Writes to standard error, so that standard output holds results alone. A quiet command shows nothing.
class ProgressPrinter {
 public:
  ProgressPrinter();
  ~ProgressPrinter();
  ProgressPrinter(const ProgressPrinter&) = delete;
  ProgressPrinter& operator=(const ProgressPrinter&) = delete;

  /// `name` begins the line, where there is more than one piece of work; `key` tells them apart.
  void show(const ProgressLine& line, const std::string& name = "", int64_t key = 0);
  void showStage(const std::string& stage, int64_t percent);

  /// What stands before all, as "3 of 12 done".
  void setHead(const std::string& head) { head_ = head; }
  /// A piece of work that is over.
  void remove(int64_t key);
  /// Clears the terminal's line, for what is printed next.
  void hide();

 private:
  using Clock = std::chrono::steady_clock;

  struct Shown {
    ProgressLine line;
    std::string name;
    Clock::time_point printed = {};
  };

  void printPlain(Shown& shown, bool isOther) const;
  void draw();
  std::string lineOf(size_t columns) const;
  std::string sharedLine(size_t columns) const;

  const bool isTerminal_;
  std::map<int64_t, Shown> work_;
  std::string head_;
  std::string drawn_;
};

/// "12.3 MB", "950 KB", "17 B": powers of 1000.
std::string byteText(double bytes);

}  // namespace tarn
