#include "app/Output.h"

#include <fmt/format.h>
#include <tarn/tarn.h>

#include <cstdio>

#include "platform/URL.h"

namespace tarn {

void sendLog(bool verbose) {
  if (verbose) {
    setLog([](std::string_view line) { fmt::print(stderr, "{}\n", line); });
  } else {
    setLog({});
  }
}

void printJSON(const JSObject& object) {
  printLine(object.json());
}

void printLine(const std::string& line) {
  fmt::print("{}\n", line);
  std::fflush(stdout);
}

void printFailure(const std::string& line) {
  fmt::print(stderr, "tarn: {}\n", withoutSecrets(line));
}

}  // namespace tarn
