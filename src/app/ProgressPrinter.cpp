#include "app/ProgressPrinter.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include "platform/JSObject.h"

namespace tarn {
namespace {

constexpr int barWidth = 24;

std::string bar(double fraction) {
  auto filled = static_cast<size_t>(fraction * barWidth);
  return "[" + std::string(filled, '#') + std::string(barWidth - filled, '.') + "]";
}

std::string timeText(double seconds) {
  const int64_t whole = std::llround(seconds);
  if (whole >= 3600) return fmt::format("{}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
  return fmt::format("{}:{:02}", whole / 60, whole % 60);
}

}  // namespace

std::string byteText(double bytes) {
  constexpr std::array units{"B", "KB", "MB", "GB", "TB"};
  size_t unit = 0;
  while (bytes >= 1000 && unit + 1 < units.size()) {
    bytes /= 1000;
    ++unit;
  }
  return fmt::format("{:.{}f} {}", bytes, unit == 0 ? 0 : 1, units[unit]);
}

ProgressPrinter::ProgressPrinter() : isTerminal_(isatty(STDERR_FILENO) == 1) {}

ProgressPrinter::~ProgressPrinter() {
  if (isTerminal_ && !lastLine_.empty()) fmt::print(stderr, "\n");
}

void ProgressPrinter::show(const JSObject& entry) {
  const auto status = valueAt<std::string>(entry, "status", "");
  if (status == "STATUS_PENDING") return print("waiting for a free slot");
  if (status == "STATUS_RUNNING") return print(transferLine(entry));
  if (status != "STATUS_PROCESSING") return;
  showStage(valueAt<std::string>(entry, "processingStage", ""), valueAt<int64_t>(entry, "processingProgress", 0));
}

void ProgressPrinter::showStage(const std::string& stage, int64_t percent) {
  if (stage.empty()) return print("processing");
  print(percent > 0 ? fmt::format("{} {}%", stage, percent) : stage);
}

std::string ProgressPrinter::transferLine(const JSObject& entry) {
  const auto bytes = valueAt<int64_t>(entry, "bytesDownloaded", 0);
  const auto total = valueAt<int64_t>(entry, "totalBytes", -1);
  const auto now = Clock::now();
  if (lastBytes_) {
    const double seconds = std::chrono::duration<double>(now - lastTime_).count();
    const double current = static_cast<double>(std::max<int64_t>(bytes - *lastBytes_, 0)) / std::max(seconds, 1e-3);
    rate_ = rate_ > 0 ? 0.7 * rate_ + 0.3 * current : current;
  }
  lastBytes_ = bytes;
  lastTime_ = now;
  std::string rate = rate_ > 0 ? fmt::format("  {}/s", byteText(rate_)) : "";
  if (total <= 0) return fmt::format("downloading {}{}", byteText(static_cast<double>(bytes)), rate);
  const double fraction = std::clamp(static_cast<double>(bytes) / static_cast<double>(total), 0.0, 1.0);
  std::string left = rate_ > 0 ? "  " + timeText(static_cast<double>(total - bytes) / rate_) + " left" : "";
  return fmt::format("{}{:3.0f}%  {} of {}{}{}", isTerminal_ ? bar(fraction) + " " : "downloading ", fraction * 100,
                     byteText(static_cast<double>(bytes)), byteText(static_cast<double>(total)), rate, left);
}

void ProgressPrinter::print(const std::string& line) {
  if (line == lastLine_) return;
  lastLine_ = line;
  if (isTerminal_) {
    fmt::print(stderr, "\r\033[K{}", line);
    std::fflush(stderr);
  } else {
    fmt::print(stderr, "{}\n", line);
  }
}

}  // namespace tarn
