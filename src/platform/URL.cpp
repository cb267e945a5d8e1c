#include "platform/URL.h"

#include <curl/curl.h>
#include <fmt/format.h>

#include <algorithm>
#include <memory>

#include "platform/UTF8.h"

namespace tarn {
namespace {

using CURLUPointer = std::unique_ptr<CURLU, decltype(&curl_url_cleanup)>;

std::optional<std::string> partOf(const CURLUPointer& url, CURLUPart part, unsigned flags = 0) {
  char* text = nullptr;
  if (curl_url_get(url.get(), part, &text, flags) != CURLUE_OK) return std::nullopt;
  const std::unique_ptr<char, decltype(&curl_free)> owned(text, curl_free);
  return std::string(text);
}

bool isBlankOrControl(char c) {
  return static_cast<unsigned char>(c) <= 0x20 || c == 0x7F;
}

std::optional<std::string> schemeOf(std::string_view text) {
  const size_t end = text.find("://");
  if (end == std::string_view::npos) return std::nullopt;
  std::string scheme = lowered(text.substr(0, end));
  if (scheme != "http" && scheme != "https") return std::nullopt;
  return scheme;
}

std::optional<int> hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return std::nullopt;
}

constexpr std::string_view hidden = "***";

/// A query or a fragment, with the character that begins it: its names stay, and what has none is a value.
std::string withoutValues(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const std::string_view parameter = text.substr(0, text.find_first_of("?#&", 1));
    text.remove_prefix(parameter.size());
    const size_t equals = parameter.find('=');
    const bool hasValue = parameter.size() > (equals == std::string_view::npos ? 1 : equals + 1);
    result += parameter.substr(0, equals == std::string_view::npos ? 1 : equals + 1);
    if (hasValue) result += hidden;
  }
  return result;
}

/// `url` begins with its scheme and "://", which ends at `start`.
std::string urlWithoutSecrets(std::string_view url, size_t start) {
  std::string result(url.substr(0, start));
  url.remove_prefix(start);
  const std::string_view authority = url.substr(0, url.find_first_of("/?#"));
  const size_t at = authority.rfind('@');
  if (at != std::string_view::npos) {
    result += hidden;
    url.remove_prefix(at);
  }
  const std::string_view place = url.substr(0, url.find_first_of("?#"));
  result += place;
  return result + withoutValues(url.substr(place.size()));
}

}  // namespace

std::string withoutSecrets(std::string_view text) {
  std::string result;
  for (size_t from = 0;;) {
    const size_t slashes = text.find("://", from);
    if (slashes == std::string_view::npos) return result.append(text);
    const std::string_view ahead = text.substr(0, slashes);
    const std::string scheme = lowered(ahead.substr(ahead.size() - std::min<size_t>(ahead.size(), 5)));
    const size_t length = scheme == "https" ? 5 : (scheme.ends_with("http") ? 4 : 0);
    from = slashes + 3;
    if (length == 0) continue;
    const std::string_view url = text.substr(0, text.find_first_of(" \t\r\n\"<>", from));
    const size_t end = std::max(url.find_last_not_of(".,;:!)'") + 1, from);
    const size_t begin = slashes - length;
    result.append(text.substr(0, begin)).append(urlWithoutSecrets(text.substr(begin, end - begin), length + 3));
    text.remove_prefix(end);
    from = 0;
  }
}

std::optional<URL> URL::parse(std::string_view text) {
  if (std::any_of(text.begin(), text.end(), isBlankOrControl)) return std::nullopt;
  auto scheme = schemeOf(text);
  // The transfer's own parser has the last word on host and port. It forgives a missing host, "http:///name".
  if (!scheme || text.substr(scheme->size() + 3).starts_with('/')) return std::nullopt;
  const std::string whole(text);
  const CURLUPointer parts(curl_url(), curl_url_cleanup);
  if (!parts || curl_url_set(parts.get(), CURLUPART_URL, whole.c_str(), CURLU_PATH_AS_IS) != CURLUE_OK) {
    return std::nullopt;
  }
  auto path = partOf(parts, CURLUPART_PATH);
  const auto host = partOf(parts, CURLUPART_HOST);
  auto port = partOf(parts, CURLUPART_PORT, CURLU_DEFAULT_PORT);
  if (!path || !host || !port) return std::nullopt;
  return URL{.text = whole,
             .scheme = std::move(*scheme),
             .host = lowered(*host),
             .port = std::move(*port),
             .path = std::move(*path)};
}

std::string encodedURL(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
  text = text.substr(0, text.find_last_not_of(' ') + 1);
  const size_t scheme = text.find("://");
  const size_t place = scheme == std::string_view::npos ? scheme : text.find_first_of("/?#", scheme + 3);
  std::string encoded(text.substr(0, place));
  for (size_t i = encoded.size(); i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const bool isEscape = byte == '%' && text.size() - i > 2 && percentDecode(text.substr(i, 3));
    const bool mayStand = std::string_view("\"<>\\^`{|} %").find(text[i]) == std::string_view::npos && byte < 0x80;
    if (mayStand || isEscape) {
      encoded += text[i];
    } else {
      encoded += fmt::format("%{:02X}", byte);
    }
  }
  return encoded;
}

std::optional<std::string> resolvedURL(const std::string& base, const std::string& reference) {
  const CURLUPointer url(curl_url(), curl_url_cleanup);
  if (!url || curl_url_set(url.get(), CURLUPART_URL, base.c_str(), 0) != CURLUE_OK) return std::nullopt;
  constexpr unsigned flags = CURLU_URLENCODE | CURLU_NON_SUPPORT_SCHEME;
  if (curl_url_set(url.get(), CURLUPART_URL, reference.c_str(), flags) != CURLUE_OK) return std::nullopt;
  return partOf(url, CURLUPART_URL);
}

std::optional<Credentials> credentialsOf(const std::string& url) {
  const CURLUPointer parts(curl_url(), curl_url_cleanup);
  if (!parts || curl_url_set(parts.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) return std::nullopt;
  auto user = partOf(parts, CURLUPART_USER, CURLU_URLDECODE);
  auto password = partOf(parts, CURLUPART_PASSWORD, CURLU_URLDECODE);
  if (!user && !password) return std::nullopt;
  return Credentials{.user = user.value_or(""), .password = password.value_or("")};
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
