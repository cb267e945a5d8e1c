#pragma once

#include <fmt/format.h>
#include <tarn/tarn.h>

#include <list>
#include <string_view>
#include <utility>

namespace tarn {

/// Sends the log somewhere else than standard output; an empty sink brings standard output back. Returns where it went
/// before. Thread-safe.
LogSink setLogSink(LogSink sink);

/// Takes the log while it lives, before the sink and of those that were made before it. Thread-safe.
class LogDetour {
 public:
  explicit LogDetour(LogSink sink);
  ~LogDetour();
  LogDetour(const LogDetour&) = delete;
  LogDetour& operator=(const LogDetour&) = delete;

 private:
  std::list<LogSink>::iterator place_;
};

/// Writes one line to the log, its URLs without their secrets. Thread-safe; never throws.
void logLine(std::string_view line) noexcept;

/// Formats and writes one line to the log: log("Download queued: {}", id).
template <typename... Arguments>
void log(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
  logLine(fmt::format(format, std::forward<Arguments>(arguments)...));
}

}  // namespace tarn
