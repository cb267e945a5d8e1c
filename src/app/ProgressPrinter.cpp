#include "app/ProgressPrinter.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include "app/Output.h"
#include "app/Terminal.h"
#include "platform/UTF8.h"

namespace tarn {
namespace {

constexpr size_t widestBar = 40;
constexpr size_t narrowestBar = 6;
constexpr std::chrono::seconds plainPause{10};

std::string bar(double fraction, size_t width) {
  const auto filled = static_cast<size_t>(fraction * static_cast<double>(width));
  return "[" + std::string(filled, '#') + std::string(width - filled, '.') + "] ";
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

std::optional<ProgressLine> DownloadProgress::line(const JSObject& entry) {
  const auto status = valueAt<std::string>(entry, "status", "");
  if (status == "STATUS_PENDING") return ProgressLine{"waiting for a free slot", "waiting"};
  if (status == "STATUS_RUNNING") return transferLine(entry);
  if (status != "STATUS_PROCESSING") return std::nullopt;
  return line(valueAt<std::string>(entry, "processingStage", ""), valueAt<int64_t>(entry, "processingProgress", 0));
}

ProgressLine DownloadProgress::line(const TransferState::Retry& retry) {
  const auto seconds = std::chrono::ceil<std::chrono::seconds>(retry.in).count();
  const std::string tries = fmt::format("({} of {}): {}", retry.number, retry.most, retry.why);
  return {fmt::format("retrying in {} s {}", seconds, tries), "retrying " + tries};
}

ProgressLine DownloadProgress::line(const std::string& stage, int64_t percent) {
  if (stage.empty()) return {"processing", "processing"};
  return {percent > 0 ? fmt::format("{} {}%", stage, percent) : stage, stage};
}

ProgressLine DownloadProgress::transferLine(const JSObject& entry) {
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
  const std::string rate = rate_ > 0 ? fmt::format("  {}/s", byteText(rate_)) : "";
  const std::string got = byteText(static_cast<double>(bytes));
  if (total <= 0) return {fmt::format("downloading {}{}", got, rate), "downloading"};
  const double fraction = std::clamp(static_cast<double>(bytes) / static_cast<double>(total), 0.0, 1.0);
  const std::string left = rate_ > 0 ? "  " + timeText(static_cast<double>(total - bytes) / rate_) + " left" : "";
  return {fmt::format("{:.0f}%  {} of {}{}{}", fraction * 100, got, byteText(static_cast<double>(total)), rate, left),
          "downloading", fraction};
}

ProgressPrinter::ProgressPrinter() : isTerminal_(isTerminal(STDERR_FILENO)) {}

ProgressPrinter::~ProgressPrinter() {
  hide();
}

void ProgressPrinter::show(const ProgressLine& line, const std::string& name, int64_t key) {
  if (isQuiet()) return;
  Shown& shown = work_[key];
  const bool isOther = shown.line.what != line.what;
  shown.line = line;
  shown.name = name;
  if (isTerminal_) {
    draw();
  } else {
    printPlain(shown, isOther);
  }
}

void ProgressPrinter::showStage(const std::string& stage, int64_t percent) {
  show(DownloadProgress::line(stage, percent));
}

void ProgressPrinter::remove(int64_t key) {
  if (work_.erase(key) > 0 && isTerminal_ && !work_.empty()) draw();
}

void ProgressPrinter::hide() {
  if (!isTerminal_ || drawn_.empty()) return;
  fmt::print(stderr, "\r\033[K");
  std::fflush(stderr);
  drawn_.clear();
}

void ProgressPrinter::printPlain(Shown& shown, bool isOther) const {
  const auto now = Clock::now();
  if (!isOther && now < shown.printed + plainPause) return;
  shown.printed = now;
  const std::string name = shown.name.empty() ? "" : shown.name + ": ";
  const char* const what = shown.line.fraction ? "downloading " : "";
  fmt::print(stderr, "{}\n", escaped(name + what + shown.line.text));
}

void ProgressPrinter::draw() {
  const size_t columns = terminalColumns(STDERR_FILENO);
  const std::string line = lineOf(columns > 1 ? columns - 1 : 1);  // a full line would move the cursor to the next one
  if (line == drawn_) return;
  drawn_ = line;
  fmt::print(stderr, "\r\033[K{}", line);
  std::fflush(stderr);
}

std::string ProgressPrinter::lineOf(size_t columns) const {
  if (work_.size() > 1 || !head_.empty()) return sharedLine(columns);
  const ProgressLine& line = work_.begin()->second.line;
  const std::string text = escaped(line.text);
  const size_t used = columnsOf(text);
  constexpr size_t brackets = 3;
  const bool hasRoom = used + brackets + narrowestBar <= columns;
  if (!line.fraction || !hasRoom) return cutToColumns(text, columns);
  return bar(*line.fraction, std::min(columns - used - brackets, widestBar)) + text;
}

/// All work has an equal part of the line; what finds no place is counted.
std::string ProgressPrinter::sharedLine(size_t columns) const {
  constexpr std::string_view parting = " | ";
  constexpr size_t narrowest = 28;  // of a part, in columns
  constexpr size_t narrowestName = 8;
  std::string line = cutToColumns(head_, columns);
  const size_t room = columns - columnsOf(line);
  const size_t count = std::clamp<size_t>(room / narrowest, 1, work_.size());
  const size_t share = room / count;
  const size_t width = share - std::min(share, parting.size());
  size_t shownCount = 0;
  for (const auto& [key, shown] : work_) {
    if (shownCount++ == count) break;
    const std::string name = cutToColumns(escaped(shown.name), std::max(width / 3, narrowestName));
    line += std::string(line.empty() ? "" : parting) + cutToColumns(name + " " + escaped(shown.line.text), width);
  }
  if (count < work_.size()) line += fmt::format(" +{}", work_.size() - count);
  return cutToColumns(line, columns);
}

}  // namespace tarn
