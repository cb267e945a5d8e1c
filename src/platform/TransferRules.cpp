#include "platform/TransferRules.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "platform/URL.h"
#include "platform/UTF8.h"

namespace tarn {
namespace {

constexpr size_t mostHeaders = 100;
constexpr size_t largestOptions = 64 << 10;  // bytes: a line of the home's socket holds them twice over
constexpr uint64_t slowest = 1024;           // bytes a second; below that a server seems to have fallen silent
constexpr int mostRetries = 1000;
constexpr std::string_view onlyHTTP = "#HttpOnly_";

/// The exchange itself rests on these.
constexpr std::array ownHeaders = {
    "accept-encoding",
    "connection",
    "content-length",
    "expect",
    "host",
    "if-match",
    "if-range",
    "if-modified-since",
    "if-none-match",
    "keep-alive",
    "proxy-connection",
    "if-unmodified-since",
    "range",
    "te",
    "trailer",
    "transfer-encoding",
    "upgrade",
};

bool isTokenCharacter(char c) {
  const bool isLetter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
  return isLetter || (c >= '0' && c <= '9') || std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

bool isControl(char c) {
  return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7F;
}

bool isOneLine(std::string_view text) {
  return isUTF8(text) && std::ranges::none_of(text, isControl);
}

std::optional<std::string> whyHeaderRefused(std::string_view header, size_t number) {
  const std::string_view name = header.substr(0, header.find(':'));
  const bool isHeader = name.size() < header.size() && !name.empty() && std::ranges::all_of(name, isTokenCharacter);
  if (!isHeader || !isOneLine(header)) return fmt::format("Header {} is not of the form \"Name: value\"", number);
  const auto* const own = std::ranges::find(ownHeaders, lowered(name));
  if (own != ownHeaders.end()) return fmt::format("The header {} cannot be chosen: the transfer sets it", name);
  return std::nullopt;
}

std::vector<std::string_view> linesOf(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    if (line.ends_with('\r')) line.remove_suffix(1);
    lines.push_back(line);
  }
  return lines;
}

bool isComment(std::string_view line) {
  return line.find_first_not_of(" \t") == std::string_view::npos ||
         (line.front() == '#' && !line.starts_with(onlyHTTP));
}

/// Seven fields; an empty value may be left out with its tab.
bool isCookie(std::string_view line) {
  const auto tabs = std::ranges::count(line, '\t');
  return !line.empty() && line.front() != '\t' && isOneLine(line) && (tabs == 6 || tabs == 5);
}

bool isCookieOf(std::string_view line, const std::string& host) {
  if (line.starts_with(onlyHTTP)) line.remove_prefix(onlyHTTP.size());
  std::string domain = lowered(line.substr(0, line.find('\t')));
  if (domain.starts_with('.')) domain.erase(0, 1);
  return host == domain || host.ends_with("." + domain);
}

std::optional<std::string> whyCookiesRefused(std::string_view cookies) {
  size_t number = 0;
  for (const std::string_view line : linesOf(cookies)) {
    ++number;
    if (!isComment(line) && !isCookie(line)) {
      return fmt::format("Line {} of the cookies is not in the Netscape format: seven fields with a tab between",
                         number);
    }
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> whyRefused(const TransferOptions& options) {
  size_t size = options.cookies.size() + options.referer.value_or("").size() + options.userAgent.value_or("").size();
  size_t number = 0;
  for (const std::string& header : options.headers) {
    if (auto why = whyHeaderRefused(header, ++number)) return why;
    size += header.size();
  }
  if (auto why = whyCookiesRefused(options.cookies)) return why;
  if (!isOneLine(options.referer.value_or(""))) return "The referrer is not one line of text";
  if (!isOneLine(options.userAgent.value_or(""))) return "The user agent is not one line of text";
  if (number > mostHeaders) return fmt::format("There are more than {} headers", mostHeaders);
  if (size > largestOptions) return fmt::format("Headers and cookies are larger than {} bytes", largestOptions);
  if (options.bytesPerSecond && (*options.bytesPerSecond < slowest || *options.bytesPerSecond > INT64_MAX)) {
    return fmt::format("A rate of less than {} bytes a second cannot be kept", slowest);
  }
  if (options.retries && (*options.retries < 0 || *options.retries > mostRetries)) {
    return fmt::format("The number of retries is not from 0 to {}", mostRetries);
  }
  return std::nullopt;
}

std::vector<std::string> cookieLines(std::string_view cookies) {
  std::vector<std::string> lines;
  for (const std::string_view line : linesOf(cookies)) {
    if (!isComment(line)) lines.emplace_back(line);
  }
  return lines;
}

std::string cookiesFor(std::string_view url, std::string_view cookies) {
  const auto parsed = URL::parse(encodedURL(url));
  std::string kept;
  for (const std::string_view line : linesOf(cookies)) {
    const bool isOthers = parsed && isCookie(line) && !isCookieOf(line, parsed->host);
    if (!isComment(line) && !isOthers) kept += line;
    kept += '\n';
  }
  kept.erase(kept.find_last_not_of('\n') + 1);
  return kept;
}

JSObject objectOf(const TransferOptions& options) {
  JSObject object;
  if (!options.headers.empty()) object.set("headers", JSValue::Array(options.headers.begin(), options.headers.end()));
  if (!options.cookies.empty()) object.set("cookies", options.cookies);
  if (options.referer) object.set("referer", *options.referer);
  if (options.userAgent) object.set("userAgent", *options.userAgent);
  if (options.bytesPerSecond) object.set("bytesPerSecond", static_cast<int64_t>(*options.bytesPerSecond));
  if (options.retries) object.set("retries", *options.retries);
  return object;
}

JSObject objectOf(const TransferState& state) {
  JSObject object{{"received", static_cast<int64_t>(state.received)}};
  if (state.expected) object.set("expected", static_cast<int64_t>(*state.expected));
  object.set("paused", state.isPaused);
  if (const auto& retry = state.retry) {
    object.set("retry", JSObject{{"number", retry->number},
                                 {"most", retry->most},
                                 {"seconds", std::chrono::duration<double>(retry->in).count()},
                                 {"why", retry->why}});
  }
  return object;
}

TransferOptions transferOptions(const JSObject& object) {
  TransferOptions options{.cookies = valueAt<std::string>(object, "cookies", ""),
                          .referer = optionalAt<std::string>(object, "referer"),
                          .userAgent = optionalAt<std::string>(object, "userAgent")};
  for (const JSValue& header : valueAt(object, "headers", JSValue::Array())) {
    if (const auto* const text = header.get<std::string>()) options.headers.push_back(*text);
  }
  if (const auto rate = optionalAt<int64_t>(object, "bytesPerSecond")) {
    options.bytesPerSecond = static_cast<uint64_t>(std::max<int64_t>(*rate, 0));
  }
  if (const auto retries = optionalAt<int64_t>(object, "retries")) {
    options.retries = static_cast<int>(std::clamp<int64_t>(*retries, -1, mostRetries + 1));
  }
  return options;
}

}  // namespace tarn
