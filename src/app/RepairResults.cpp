#include "app/RepairResults.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "app/Commands.h"
#include "app/Output.h"
#include "app/ProgressPrinter.h"
#include "platform/host/PosixCalls.h"
#include "platform/host/PosixFileManager.h"

namespace tarn {
namespace {

using Kind = RepairReport::Kind;

/// Of a report. No line of ours comes near.
constexpr size_t longestLine = 16 << 20;

JSValue::Array arrayOf(const std::vector<std::string>& words) {
  return {words.begin(), words.end()};
}

JSValue nullIfEmpty(const std::string& words) {
  return words.empty() ? JSValue() : JSValue(words);
}

std::string absoluteName(const Path& path) {
  return path.empty() ? "" : absolutePath(path).string();
}

/// Whether a line of the report with this result says that the result is there.
bool isResultThere(std::string_view word) {
  constexpr std::array ends{RepairEnd::repaired, RepairEnd::unchanged, RepairEnd::partly, RepairEnd::skipped};
  return std::any_of(ends.begin(), ends.end(), [word](RepairEnd end) { return word == wordOf(end); });
}

/// As it comes back from a line of the report.
std::string asReadBack(const std::string& text) {
  const auto object = JSObject::parse(JSObject{{"text", text}}.json());
  return object ? valueAt<std::string>(*object, "text", "") : text;
}

}  // namespace

RepairEnd endOf(const RepairedFile& result) {
  if (result.wasDone) return RepairEnd::skipped;
  switch (result.report.kind) {
    case Kind::repaired:
      return result.report.isPartly ? RepairEnd::partly : RepairEnd::repaired;
    case Kind::unchanged:
      return result.report.isPartly ? RepairEnd::partly : RepairEnd::unchanged;
    case Kind::refused:
      return RepairEnd::refused;
    case Kind::failed:
      return RepairEnd::failed;
    case Kind::cancelled:
      break;
  }
  return RepairEnd::interrupted;
}

const char* wordOf(RepairEnd end) {
  constexpr std::array words{"repaired", "unchanged", "partly", "refused", "failed", "interrupted", "skipped"};
  return words[static_cast<size_t>(end)];
}

int exitCodeOf(const RepairedFile& result) {
  switch (endOf(result)) {
    case RepairEnd::repaired:
    case RepairEnd::unchanged:
    case RepairEnd::skipped:
      return ExitCode::done;
    case RepairEnd::partly:
      return ExitCode::partly;
    case RepairEnd::refused:
      return ExitCode::refused;
    case RepairEnd::interrupted:
      return ExitCode::interrupted;
    case RepairEnd::failed:
      break;
  }
  return result.report.mayTryAgain ? ExitCode::mayTryAgain : ExitCode::failed;
}

JSObject reportObject(const RepairedFile& result) {
  const RepairReport& report = result.report;
  const RepairEnd end = endOf(result);
  return {{"schema", jsonSchema},
          {"result", wordOf(end)},
          {"input", absoluteName(result.file.input)},
          {"output", absoluteName(result.file.output)},
          {"inputSize", static_cast<int64_t>(report.inputSize)},
          {"outputSize", static_cast<int64_t>(report.outputSize)},
          {"seconds", result.seconds},
          {"wrong", arrayOf(report.summary.wrong)},
          {"done", arrayOf(report.summary.done)},
          {"note", report.note ? JSValue(*report.note) : JSValue()},
          {"warnings", arrayOf(report.warnings)},
          {"reason", end == RepairEnd::skipped ? JSValue("the output is there, and is not older than the input")
                                               : nullIfEmpty(report.failure)},
          {"advice", nullIfEmpty(report.advice)},
          {"mayTryAgain", report.mayTryAgain}};
}

RepairReportFile::RepairReportFile(const Path& path)
    : path_(path), file_(::open(nativeName(path), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0666)) {
  if (!file_.isOpen()) throw PosixError(errno, "write the report " + path.string());
  isFile_ = std::filesystem::is_regular_file(path);
  if (isFile_ && !readOn()) write("\n");
}

bool RepairReportFile::knowsResultOf(const Path& input) {
  const std::string name = asReadBack(absoluteName(input));
  if (!known_.contains(name) && isFile_) readOn();
  return known_.contains(name);
}

/// Reads the lines that have come since. False if the last one lacks its end.
bool RepairReportFile::readOn() {
  std::string text;
  std::array<char, 1 << 16> piece{};
  for (;;) {
    const off_t place = read_ + static_cast<off_t>(text.size());
    const ssize_t count = repeatInterrupted([&] { return ::pread(*file_, piece.data(), piece.size(), place); });
    if (count < 0) throw PosixError(errno, "read the report " + path_.string());
    if (count == 0) return text.empty();
    // The name may be that of a video by mistake, to whose bytes nothing must be appended.
    if ((place == 0 && piece.front() != '{') || text.size() > longestLine) {
      throw UsageError(fmt::format("{} is no report of a repair; name another file for --report.", path_.string()));
    }
    const std::string_view fresh(piece.data(), static_cast<size_t>(count));
    text += fresh;
    if (fresh.find('\n') == std::string_view::npos) continue;
    const size_t end = text.rfind('\n') + 1;
    std::string_view lines = std::string_view(text).substr(0, end);
    while (!lines.empty()) {
      const std::string_view line = lines.substr(0, lines.find('\n'));
      lines.remove_prefix(line.size() + 1);
      const auto object = JSObject::parse(line);
      if (object && isResultThere(valueAt<std::string>(*object, "result", ""))) {
        known_.insert(valueAt<std::string>(*object, "input", ""));
      }
    }
    text.erase(0, end);
    read_ += static_cast<off_t>(end);
  }
}

void RepairReportFile::append(const JSObject& file) {
  JSObject line{{"schema", jsonSchema}};
  for (const auto& [key, value] : file.members()) line.set(key, value);
  write(line.json() + "\n");
}

/// In one call, so that a kill leaves no half of a line.
void RepairReportFile::write(const std::string& text) {
  if (!writeAll(*file_, text)) throw PosixError(errno, "write the report " + path_.string());
}

void RepairTotals::add(const RepairedFile& result) {
  Row& row = rows_[static_cast<size_t>(endOf(result))];
  ++row.files;
  row.before += result.report.inputSize;
  row.after += result.report.outputSize;
}

size_t RepairTotals::files() const {
  size_t files = 0;
  for (const Row& row : rows_) files += row.files;
  return files;
}

std::vector<std::string> RepairTotals::table() const {
  std::vector<std::string> lines;
  for (size_t i = 0; i < rows_.size(); ++i) {
    const Row& row = rows_[i];
    if (row.files == 0) continue;
    std::string line = fmt::format("  {:<12}{:>7}", wordOf(static_cast<RepairEnd>(i)), row.files);
    if (row.before > 0) line += fmt::format("{:>12}", byteText(static_cast<double>(row.before)));
    if (row.after > 0) line += " -> " + byteText(static_cast<double>(row.after));
    lines.push_back(line);
  }
  return lines;
}

JSObject RepairTotals::object() const {
  JSObject numbers;
  for (size_t i = 0; i < rows_.size(); ++i) {
    numbers.set(wordOf(static_cast<RepairEnd>(i)), static_cast<int64_t>(rows_[i].files));
  }
  return numbers;
}

}  // namespace tarn
