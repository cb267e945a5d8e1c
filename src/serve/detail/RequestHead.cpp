#include "serve/detail/RequestHead.h"

#include <algorithm>

#include "platform/URL.h"

namespace tarn {
namespace {

/// Takes the text up to the separator off the front of `rest`, with the separator.
std::string_view takeUntil(std::string_view& rest, char separator) {
  const size_t end = std::min(rest.find(separator), rest.size());
  const std::string_view part = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return part;
}

}  // namespace

std::optional<std::string_view> RequestHead::field(std::string_view name) const {
  const auto found = std::ranges::find(fields, name, &decltype(fields)::value_type::first);
  return found == fields.end() ? std::nullopt : std::optional<std::string_view>(found->second);
}

std::vector<std::string_view> RequestHead::allFields(std::string_view name) const {
  std::vector<std::string_view> values;
  for (const auto& [key, value] : fields) {
    if (key == name) values.push_back(value);
  }
  return values;
}

std::vector<std::string_view> RequestHead::cookies(std::string_view name) const {
  std::vector<std::string_view> values;
  for (std::string_view rest : allFields("cookie")) {
    while (!rest.empty()) {
      std::string_view pair = takeUntil(rest, ';');
      pair.remove_prefix(std::min(pair.find_first_not_of(' '), pair.size()));
      if (takeUntil(pair, '=') == name) values.push_back(pair);
    }
  }
  return values;
}

std::optional<RequestTarget> RequestTarget::parse(std::string_view text) {
  if (!text.starts_with('/')) return std::nullopt;
  RequestTarget target;
  target.path = takeUntil(text, '?');
  while (!text.empty()) {
    std::string_view value = takeUntil(text, '&');
    const auto name = percentDecode(takeUntil(value, '='));
    auto decoded = percentDecode(value);
    if (!name || !decoded) return std::nullopt;
    target.query.insert_or_assign(*name, std::move(*decoded));
  }
  return target;
}

std::string RequestTarget::parameter(const std::string& name) const {
  const auto found = query.find(name);
  return found == query.end() ? std::string() : found->second;
}

}  // namespace tarn
