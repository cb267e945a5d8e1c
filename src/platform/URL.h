#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tarn {

/// A URL's absolute text and its parts, as far as the engine needs them.
struct URL {
  std::string text;    ///< absolute text, as given
  std::string scheme;  ///< lower case
  std::string path;    ///< percent-encoded, without query and fragment

  /// Parses an absolute http or https URL with a host; nothing for any other text, for control characters or blanks.
  static std::optional<URL> parse(std::string_view text);

  /// The last part of the path, percent-decoded, or as it stands where an escape is broken; empty when the path ends in
  /// "/". It may hold any byte, "/" included.
  std::string lastPathComponent() const;
};

/// The text with what must stay between the user and the server taken out of every http and https URL in it: the user
/// name and password, and the values of parameters whose name is, or ends in the word, token, key, sig, signature or
/// password. "***" takes their place.
std::string withoutSecrets(std::string_view text);

/// Percent-decodes; nothing for a broken escape.
std::optional<std::string> percentDecode(std::string_view text);

}  // namespace tarn
