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

void logLine(std::string_view line) noexcept {
  try {
    const std::string safe = withoutSecrets(line);
    std::lock_guard guard(output().mutex);
    if (output().sink) {
      output().sink(safe);
    } else {
      std::fwrite(safe.data(), 1, safe.size(), stdout);
      std::fputc('\n', stdout);
    }
  } catch (...) {  // NOLINT(bugprone-empty-catch): a log that cannot be written must not end the work that it tells of
  }
}

}  // namespace tarn
