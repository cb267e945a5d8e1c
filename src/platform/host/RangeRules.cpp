#include "platform/host/RangeRules.h"

#include <curl/curl.h>

#include <algorithm>
#include <charconv>

namespace tarn {
namespace {

/// A count of bytes that a file can have.
std::optional<uint64_t> parseNumber(std::string_view text) {
  int64_t number = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (failure != std::errc() || end != text.data() + text.size() || number < 0) return std::nullopt;
  return static_cast<uint64_t>(number);
}

std::optional<ContentRange::Span> parseSpan(std::string_view text) {
  const size_t dash = text.find('-');
  if (dash == std::string_view::npos) return std::nullopt;
  const auto first = parseNumber(text.substr(0, dash));
  const auto last = parseNumber(text.substr(dash + 1));
  if (!first || !last || *first > *last) return std::nullopt;
  return ContentRange::Span{*first, *last};
}

bool isPlainText(std::string_view text) {
  constexpr size_t longest = 1024;
  return text.size() <= longest && std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

bool isEntityTag(std::string_view validator) {
  return validator.starts_with('"');
}

/// Whether the response names the version that was asked for. Silence does not count: a server that overlooks If-Range
/// would send the range of another version.
bool namesVersion(const ResponseHead& head, const std::string& validator) {
  return (isEntityTag(validator) ? head.etag : head.lastModified) == validator;
}

bool continues(const ResponseHead& head, const ResumePoint& asked) {
  const auto& range = head.contentRange;
  if (!range || !range->span || !range->total || range->span->first != asked.offset) return false;
  if (asked.expectedSize && *asked.expectedSize != *range->total) return false;
  if (head.contentLength && *head.contentLength != range->span->last - range->span->first + 1) return false;
  return asked.offset == 0 || namesVersion(head, asked.validator);
}

}  // namespace

std::optional<ContentRange> ContentRange::parse(std::string_view text) {
  constexpr std::string_view unit = "bytes ";
  const size_t slash = text.find('/');
  if (!text.starts_with(unit) || slash == std::string_view::npos) return std::nullopt;

  ContentRange range;
  const std::string_view span = text.substr(unit.size(), slash - unit.size());
  const std::string_view total = text.substr(slash + 1);
  if (span != "*" && !(range.span = parseSpan(span))) return std::nullopt;
  if (total != "*" && !(range.total = parseNumber(total))) return std::nullopt;
  if (range.span && range.total && range.span->last >= *range.total) return std::nullopt;
  return range;
}

std::string ResponseHead::validator() const {
  if (isEntityTag(etag) && isPlainText(etag)) return etag;
  const time_t modified = curl_getdate(lastModified.c_str(), nullptr);
  const time_t sent = curl_getdate(date.c_str(), nullptr);
  const bool isStrong = modified != -1 && sent != -1 && modified < sent;  // RFC 9110 8.8.2.2
  return isStrong && isPlainText(lastModified) ? lastModified : std::string();
}

BodyUse bodyUse(const ResponseHead& head, const ResumePoint& asked) {
  if (head.status == 206) return continues(head, asked) ? BodyUse::append : BodyUse::startOver;
  if (head.status == 204 || head.status == 205) return BodyUse::refuse;  // no content (RFC 9110 15.3.5, 15.3.6)
  if (head.status >= 200 && head.status < 300) {
    const bool isPageInstead = asked.offset > 0 && head.isPage && !asked.isPage;
    return isPageInstead ? BodyUse::pageInstead : BodyUse::replace;
  }
  if (head.status == 416 && asked.offset > 0) return BodyUse::startOver;  // of a version without it
  if (head.status == 408 || head.status == 429 || head.status >= 500) return BodyUse::retry;
  return BodyUse::refuse;
}

}  // namespace tarn
