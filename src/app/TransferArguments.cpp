#include "app/TransferArguments.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <system_error>

#include "app/Commands.h"
#include "app/Interrupt.h"
#include "platform/host/Descriptor.h"

namespace tarn {
namespace {

constexpr int mostRetries = 1000;

bool isTokenCharacter(char c) {
  const bool isLetterOrDigit = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
  return isLetterOrDigit || std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

bool isOneLine(std::string_view text) {
  return std::ranges::none_of(text, [](char c) { return (c >= 0 && c < ' ' && c != '\t') || c == '\x7F'; });
}

/// "Name: value" (RFC 9110 5). The failure does not repeat what may be a secret.
std::string checkedHeader(std::string_view line, const std::string& place) {
  const size_t colon = line.find(':');
  const std::string_view name = line.substr(0, colon);
  const bool isHeader = colon != std::string_view::npos && !name.empty() && std::ranges::all_of(name, isTokenCharacter);
  if (!isHeader || !isOneLine(line)) {
    throw UsageError(place + " is no header. Write it as \"Name: value\", or name a file of headers as \"@FILE\".");
  }
  return std::string(line);
}

void addHeaders(std::vector<std::string>& headers, const std::string& given) {
  if (!given.starts_with('@')) {
    headers.push_back(checkedHeader(given, "A --header"));
    return;
  }
  const std::string text = readUserFile(given.substr(1));
  size_t number = 0;
  for (const std::string_view line : linesOf(text)) {
    ++number;
    if (line.empty() || line.starts_with('#')) continue;
    headers.push_back(checkedHeader(line, fmt::format("Line {} of {}", number, given.substr(1))));
  }
}

std::optional<std::string> checkedLine(const std::optional<std::string>& value, const char* option) {
  if (value && !isOneLine(*value)) throw UsageError(fmt::format("{} must be one line of text.", option));
  return value;
}

UsageError unreadable(const std::string& name) {
  return UsageError(fmt::format("{} cannot be read: {}.", name, std::generic_category().message(errno)));
}

}  // namespace

void TransferArguments::addTo(CLI::App& command) {
  command.add_option("--header", headers_, "A header for the server, \"Name: value\"; @FILE reads them from a file")
      ->allow_extra_args(false);
  command.add_option("--cookie-file", cookieFile_, "A file of cookies in the Netscape format")->type_name("FILE");
  command.add_option("--referer", referer_, "The page that leads to the video");
  command.add_option("--user-agent", userAgent_, "The name of the browser for the server (else tarn's own)");
  command.add_option("--limit-rate", rate_, "Bytes a second at most, as 500K or 2M");
  command.add_option("--retries", retries_, "Tries in a row without a new byte, after the first (else 5)")
      ->check(CLI::Range(0, mostRetries));
}

TransferOptions TransferArguments::options() const {
  TransferOptions options;
  for (const std::string& header : headers_) addHeaders(options.headers, header);
  if (cookieFile_) options.cookies = readUserFile(*cookieFile_);
  options.referer = checkedLine(referer_, "--referer");
  options.userAgent = checkedLine(userAgent_, "--user-agent");
  if (rate_) options.bytesPerSecond = parseRate(*rate_);
  options.retries = retries_;
  return options;
}

uint64_t parseRate(std::string_view text) {
  const std::string given(text);
  double factor = 1;
  for (const auto& [letter, size] : {std::pair('K', 1e3), std::pair('M', 1e6), std::pair('G', 1e9)}) {
    if (!text.ends_with(letter) && !text.ends_with(static_cast<char>(letter - 'A' + 'a'))) continue;
    factor = size;
    text.remove_suffix(1);
    break;
  }
  double number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed);
  const double rate = number * factor;
  constexpr double mostBytes = 1e15;
  if (error != std::errc() || end != text.data() + text.size() || !(rate >= 1 && rate <= mostBytes)) {
    throw UsageError(fmt::format("\"{}\" is no rate. Write bytes a second, as 500K or 2M.", given));
  }
  return static_cast<uint64_t>(std::llround(rate));
}

std::string readUserFile(const std::string& name, size_t mostBytes) {
  constexpr size_t piece = 64 << 10;
  const Descriptor file(name == "-" ? ::dup(STDIN_FILENO) : ::open(name.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file.isOpen()) throw unreadable(name);
  // Standard input may be long in coming.
  const InterruptWatcher watcher([]() -> bool { ::_exit(ExitCode::interrupted); });
  std::string text;
  for (ssize_t got = 1; got != 0;) {
    const size_t size = text.size();
    text.resize(size + piece);
    got = ::read(*file, text.data() + size, piece);
    if (got < 0 && errno != EINTR) throw unreadable(name);
    text.resize(size + static_cast<size_t>(std::max<ssize_t>(got, 0)));
    if (text.size() > mostBytes) throw UsageError(fmt::format("{} is larger than {} MiB.", name, mostBytes >> 20));
  }
  return text;
}

std::vector<std::string_view> linesOf(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    std::string_view line = text.substr(0, end);
    if (line.ends_with('\r')) line.remove_suffix(1);
    lines.push_back(line);
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}

}  // namespace tarn
