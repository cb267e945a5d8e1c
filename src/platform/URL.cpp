#include "platform/URL.h"

#include <curl/curl.h>

#include <algorithm>
#include <memory>

namespace tarn {
namespace {

using CURLUPointer = std::unique_ptr<CURLU, decltype(&curl_url_cleanup)>;

bool isBlankOrControl(char c) {
  return static_cast<unsigned char>(c) <= 0x20 || c == 0x7F;
}

char lowerCase(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

std::optional<std::string> schemeOf(std::string_view text) {
  const size_t end = text.find("://");
  if (end == std::string_view::npos) return std::nullopt;
  std::string scheme(text.substr(0, end));
  std::transform(scheme.begin(), scheme.end(), scheme.begin(), lowerCase);
  if (scheme != "http" && scheme != "https") return std::nullopt;
  return scheme;
}

std::optional<int> hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c = lowerCase(c);
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return std::nullopt;
}

}  // namespace

std::optional<URL> URL::parse(std::string_view text) {
  if (std::any_of(text.begin(), text.end(), isBlankOrControl)) return std::nullopt;
  auto scheme = schemeOf(text);
  // The transfer's own parser has the last word on host and port. It forgives a missing host, "http:///name".
  if (!scheme || text.substr(scheme->size() + 3).starts_with('/')) return std::nullopt;
  URL url{.text = std::string(text), .scheme = std::move(*scheme), .path = {}};
  const CURLUPointer parts(curl_url(), curl_url_cleanup);
  char* path = nullptr;
  if (!parts || curl_url_set(parts.get(), CURLUPART_URL, url.text.c_str(), CURLU_PATH_AS_IS) != CURLUE_OK ||
      curl_url_get(parts.get(), CURLUPART_PATH, &path, 0) != CURLUE_OK) {
    return std::nullopt;
  }
  const std::unique_ptr<char, decltype(&curl_free)> owned(path, curl_free);
  url.path = path;
  return url;
}

std::string URL::lastPathComponent() const {
  const std::string last = path.substr(path.rfind('/') + 1);
  return percentDecode(last).value_or(last);
}

std::optional<std::string> percentDecode(std::string_view text) {
  std::string decoded;
  decoded.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      decoded += text[i];
      continue;
    }
    if (text.size() - i < 3) return std::nullopt;
    const auto high = hexDigit(text[i + 1]);
    const auto low = hexDigit(text[i + 2]);
    if (!high || !low) return std::nullopt;
    decoded += static_cast<char>(*high * 16 + *low);
    i += 2;
  }
  return decoded;
}

}  // namespace tarn
