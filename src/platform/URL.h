#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tarn {

/// A URL's absolute text and its parts, as far as the engine needs them.
struct URL {
  std::string text;    ///< absolute text, as given
  std::string scheme;  ///< lower case
  std::string host;    ///< lower case
  std::string port;    ///< digits; the scheme's own if the text has none
  std::string path;    ///< percent-encoded, without query and fragment

  /// Parses an absolute http or https URL with a host; nothing for any other text, for control characters or blanks.
  static std::optional<URL> parse(std::string_view text);

  /// Whom a client speaks to: scheme, host and port.
  std::string origin() const { return scheme + "://" + host + ":" + port; }

  /// The last part of the path, percent-decoded, or as it stands where an escape is broken; empty if the path ends in
  /// "/". It may hold any byte, "/" included.
  std::string lastPathComponent() const;
};

/// A URL as people write it: what may not be in the path, the query and the fragment of a URL (RFC 3986) is
/// percent-encoded: blanks, quotes, "%" without two digits, bytes beyond ASCII; blanks around it are left out. Control
/// characters stay, and so does what comes before the path.
std::string encodedURL(std::string_view text);

/// The URL of a reference (RFC 3986 5), as a Location field has one; nothing if it does not parse. Any scheme.
std::optional<std::string> resolvedURL(const std::string& base, const std::string& reference);

/// The user name and password of a URL, decoded; nothing if it has none.
struct Credentials {
  std::string user;
  std::string password;
};
std::optional<Credentials> credentialsOf(const std::string& url);

/// The text with what may have to stay between the user and the server taken out of every http and https URL in it: the
/// user name and password, and each value of the query and the fragment, whatever its name; "***" takes their place.
/// Punctuation at the end of a URL counts as the text's.
std::string withoutSecrets(std::string_view text);

/// Percent-decodes; nothing for a broken escape.
std::optional<std::string> percentDecode(std::string_view text);

}  // namespace tarn
