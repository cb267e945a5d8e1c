#include "serve/detail/ByteRange.h"

#include <algorithm>
#include <charconv>
#include <limits>

namespace tarn {
namespace {

/// Digits only; a number beyond 64 bits is as good as the largest. Nothing for any other text.
std::optional<uint64_t> parseOffset(std::string_view text) {
  if (text.empty() || !std::ranges::all_of(text, [](char c) { return c >= '0' && c <= '9'; })) return std::nullopt;
  uint64_t number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  return result.ec == std::errc() ? number : std::numeric_limits<uint64_t>::max();
}

}  // namespace

ByteRange ByteRange::of(std::optional<std::string_view> field, uint64_t size) {
  const ByteRange whole{Kind::whole, 0, size};
  constexpr std::string_view unit = "bytes=";
  if (!field || !field->starts_with(unit)) return whole;
  const std::string_view text = field->substr(unit.size());
  const size_t dash = text.find('-');
  if (dash == std::string_view::npos) return whole;
  const std::string_view before = text.substr(0, dash);
  const std::string_view after = text.substr(dash + 1);
  auto first = parseOffset(before);
  auto last = parseOffset(after);
  if ((!first && !before.empty()) || (!last && !after.empty()) || (!first && !last)) return whole;
  if (first && last && *first > *last) return whole;
  if (!first) {  // the last so many bytes
    if (*last == 0 || size == 0) return {Kind::unsatisfiable, 0, 0};
    first = size - std::min(*last, size);
    last.reset();
  }
  if (*first >= size) return {Kind::unsatisfiable, 0, 0};
  const uint64_t end = last && *last < size ? *last + 1 : size;
  return {Kind::part, *first, std::min(end - *first, largestPart)};
}

}  // namespace tarn
