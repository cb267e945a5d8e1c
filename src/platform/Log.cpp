#include "platform/Log.h"

#include <cstdio>
#include <mutex>
#include <string>

#include "platform/URL.h"

namespace tarn {
namespace {

struct Output {
  std::mutex mutex;
  LogSink sink;
  std::list<LogSink> detours;
};

Output& output() {
  static Output instance;
  return instance;
}

}  // namespace

LogSink setLogSink(LogSink sink) {
  std::lock_guard guard(output().mutex);
  return std::exchange(output().sink, std::move(sink));
}

LogDetour::LogDetour(LogSink sink) {
  std::lock_guard guard(output().mutex);
  place_ = output().detours.insert(output().detours.end(), std::move(sink));
}

LogDetour::~LogDetour() {
  std::lock_guard guard(output().mutex);
  output().detours.erase(place_);
}

void logLine(std::string_view line) noexcept {
  try {
    const std::string safe = withoutSecrets(line);
    std::lock_guard guard(output().mutex);
    const LogSink& sink = output().detours.empty() ? output().sink : output().detours.back();
    if (sink) {
      sink(safe);
    } else {
      std::fwrite(safe.data(), 1, safe.size(), stdout);
      std::fputc('\n', stdout);
    }
  } catch (...) {  // NOLINT(bugprone-empty-catch): a log that cannot be written must not end the work that it tells of
  }
}

}  // namespace tarn
