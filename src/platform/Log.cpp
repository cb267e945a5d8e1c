#include "platform/Log.h"

#include <cstdio>
#include <mutex>

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

void setLogSink(LogSink sink) {
  std::lock_guard guard(output().mutex);
  output().sink = std::move(sink);
}

void logLine(std::string_view line) noexcept {
  try {
    std::lock_guard guard(output().mutex);
    if (output().sink) {
      output().sink(line);
    } else {
      std::fwrite(line.data(), 1, line.size(), stdout);
      std::fputc('\n', stdout);
    }
  } catch (...) {  // NOLINT(bugprone-empty-catch): a log that cannot be written must not end the work that it tells of
  }
}

}  // namespace tarn
