#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tarn {

/// The head of an HTTP request.
struct RequestHead {
  std::string method;
  std::string target;
  std::vector<std::pair<std::string, std::string>> fields = {};  ///< names in lower case, as often as they were sent

  /// The value of a field that was sent; of several of one name the first.
  std::optional<std::string_view> field(std::string_view name) const;
  std::vector<std::string_view> allFields(std::string_view name) const;

  /// The value of each cookie of this name.
  std::vector<std::string_view> cookies(std::string_view name) const;
};

/// A request target in origin form.
struct RequestTarget {
  std::string path;  ///< still percent-encoded; starts with "/"
  std::map<std::string, std::string> query;

  /// Nothing for any other form, and for a broken escape in the query.
  static std::optional<RequestTarget> parse(std::string_view text);
  /// The value of a parameter; empty when it is absent.
  std::string parameter(const std::string& name) const;
};

}  // namespace tarn
