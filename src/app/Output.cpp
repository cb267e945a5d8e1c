#include "app/Output.h"

#include <fmt/format.h>
#include <tarn/tarn.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "platform/Error.h"
#include "platform/URL.h"
#include "platform/UTF8.h"

namespace tarn {
namespace {

bool quiet = false;
int outputError = 0;

std::string environment(const char* name) {
  const char* const value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nobody sets it
  return value ? value : "";
}

std::string escapedLines(std::string_view text) {
  std::string result;
  for (size_t end = 0; end != std::string_view::npos;) {
    end = text.find('\n');
    result += escaped(text.substr(0, end));
    if (end == std::string_view::npos) break;
    result += '\n';
    text.remove_prefix(end + 1);
  }
  return result;
}

void write(const std::string& text) {
  const std::string line = text + "\n";
  errno = 0;
  const bool isWritten = std::fwrite(line.data(), 1, line.size(), stdout) == line.size() && std::fflush(stdout) == 0;
  if (!isWritten && outputError == 0) outputError = errno == 0 ? EIO : errno;
}

}  // namespace

void sendLog(bool verbose) {
  if (verbose) {
    setLog([](std::string_view line) { fmt::print(stderr, "{}\n", escaped(line)); });
  } else {
    setLog({});
  }
}

void setQuiet(bool isQuiet) {
  quiet = isQuiet;
}

bool isQuiet() {
  return quiet;
}

void printJSON(const JSObject& object) {
  std::vector<JSObject::Member> members{{"schema", jsonSchema}};
  members.insert(members.end(), object.members().begin(), object.members().end());
  write(escapedJSON(JSObject(std::move(members)).json()));
}

void printLine(const std::string& line) {
  write(escaped(line));
}

void printText(const std::string& text) {
  write(escapedLines(text));
}

void printPath(const std::filesystem::path& path) {
  write(isTerminal(STDOUT_FILENO) ? escaped(path.native()) : path.native());
}

void printNote(const std::string& line) {
  if (!quiet) fmt::print(stderr, "{}\n", escaped(withoutSecrets(line)));
}

void printFailure(const std::string& line) {
  const bool isRed = takesColours(STDERR_FILENO);
  fmt::print(stderr, "{}tarn:{} {}\n", isRed ? "\033[1;31m" : "", isRed ? "\033[0m" : "",
             escaped(withoutSecrets(line)));
}

void requireWritten() {
  if (outputError != 0) throw PosixError(outputError, "write to standard output");
}

std::string shellQuoted(std::string_view text) {
  std::string word = "'";
  for (const char c : text) word += c == '\'' ? "'\\''" : std::string(1, c);
  return word + "'";
}

bool isTerminal(int stream) {
  return ::isatty(stream) == 1;
}

bool takesColours(int stream) {
  return isTerminal(stream) && environment("NO_COLOR").empty() && environment("TERM") != "dumb";
}

}  // namespace tarn
