#include "platform/host/TransferRequest.h"

#include <curl/curl.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <initializer_list>
#include <new>

#include "platform/TransferRules.h"
#include "platform/host/TLSClosure.h"

namespace tarn {
namespace {

constexpr curl_off_t largestBuffer = 512L * 1024;  // fewer and larger writes than with 16 KiB, the default of libcurl
constexpr curl_off_t smallestBuffer = 1024;
constexpr int maximumRedirects = 20;
constexpr const char* noCoding = "identity";
constexpr const char* protocols = "http,https";

/// As libcurl wants it: "Name:" would take the header away.
std::string lineOf(const std::string& header) {
  const size_t colon = header.find(':');
  const bool isEmpty = header.find_first_not_of(" \t", colon + 1) == std::string::npos;
  return isEmpty ? header.substr(0, colon) + ";" : header;
}

/// A file or a folder of authorities in the place of the system's, as other programs let a user name them. One that is
/// not named stays the system's.
void setAuthorities(CURL* easy) {
  const auto set = [easy](CURLoption option, std::initializer_list<const char*> names) {
    for (const char* name : names) {
      const char* const path = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nobody sets the environment
      if (path && *path) return curl_easy_setopt(easy, option, path);
    }
    return CURLE_OK;
  };
  set(CURLOPT_CAINFO, {"CURL_CA_BUNDLE", "SSL_CERT_FILE"});
  set(CURLOPT_CAPATH, {"SSL_CERT_DIR"});
}

/// A field of the last response, of those of its name.
std::optional<std::string> headerAt(CURL* easy, const char* name, size_t index) {
  curl_header* header = nullptr;
  constexpr int lastRequest = -1;
  const CURLHcode found = curl_easy_header(easy, name, index, CURLH_HEADER, lastRequest, &header);
  return found == CURLHE_OK ? std::optional<std::string>(header->value) : std::nullopt;
}

}  // namespace

void TransferRequest::EasyDeleter::operator()(void* easy) const {
  curl_easy_cleanup(easy);
}
void TransferRequest::ListDeleter::operator()(void* list) const {
  curl_slist_free_all(static_cast<curl_slist*>(list));
}

TransferRequest::TransferRequest(const TransferRecord& record, const std::string& userAgent)
    : record_(record), home_(URL::parse(record.url)), credentials_(credentialsOf(record.url)), easy_(curl_easy_init()) {
  CURL* easy = easy_.get();
  if (!easy) throw std::bad_alloc();
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, protocols);
  curl_easy_setopt(easy, CURLOPT_USERAGENT, record.options.userAgent.value_or(userAgent).c_str());
  // No coding is wanted. Said in this way, libcurl decodes one that comes all the same.
  curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, noCoding);
  curl_easy_setopt(easy, CURLOPT_HTTP_CONTENT_DECODING, record.isTakenAsItIs ? 0L : 1L);
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L);  // ending must not wait for a name server
  setAuthorities(easy);
  watchClosures(easy);
  setBuffer();
}

/// Pieces are so small that a slow rate is no silence.
void TransferRequest::setBuffer() {
  const auto& rate = record_.options.bytesPerSecond;
  const auto most = rate ? static_cast<curl_off_t>(*rate) : 0;
  const curl_off_t buffer = rate ? std::clamp(most / 4, smallestBuffer, largestBuffer) : largestBuffer;
  curl_easy_setopt(easy_.get(), CURLOPT_BUFFERSIZE, static_cast<long>(buffer));
}

/// The range is set as plain headers, since libcurl's own resuming has rules of its own for what the server may answer.
void TransferRequest::ask(const ResumePoint& from) {
  if (from.offset != 0) {
    range_ = fmt::format("Range: bytes={}-", from.offset);
    ifRange_ = fmt::format("If-Range: {}", from.validator);
  }
  aimAt(record_.url);
}

void TransferRequest::aimAt(const std::string& url) {
  CURL* easy = easy_.get();
  const auto target = URL::parse(url);
  const bool isAtHome = target && home_ && target->origin() == home_->origin();
  const auto& referer = record_.options.referer;
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_REFERER, isAtHome && referer ? referer->c_str() : nullptr);
  curl_easy_setopt(easy, CURLOPT_USERNAME, isAtHome && credentials_ ? credentials_->user.c_str() : nullptr);
  curl_easy_setopt(easy, CURLOPT_PASSWORD, isAtHome && credentials_ ? credentials_->password.c_str() : nullptr);
  setHeaders(isAtHome);
  setCookies(isAtHome);
}

void TransferRequest::setHeaders(bool isAtHome) {
  std::unique_ptr<void, ListDeleter> headers;
  const auto add = [&](const std::string& line) {
    curl_slist* const longer = curl_slist_append(static_cast<curl_slist*>(headers.get()), line.c_str());
    if (!longer) throw std::bad_alloc();
    headers.release();  // NOLINT(bugprone-unused-return-value): the longer list begins with it
    headers.reset(longer);
  };
  if (!range_.empty()) {
    add(range_);
    add(ifRange_);
  }
  if (isAtHome) std::ranges::for_each(record_.options.headers, [&](const auto& header) { add(lineOf(header)); });
  curl_easy_setopt(easy_.get(), CURLOPT_HTTPHEADER, headers.get());
  headers_ = std::move(headers);
}

/// libcurl's cookies know of no ports, so that they are taken away from it elsewhere.
void TransferRequest::setCookies(bool isAtHome) {
  if (record_.options.cookies.empty() || isAtHome == hasCookies_) return;
  hasCookies_ = isAtHome;
  curl_easy_setopt(easy_.get(), CURLOPT_COOKIEFILE, "");  // switches cookies on
  curl_easy_setopt(easy_.get(), CURLOPT_COOKIELIST, "ALL");
  if (!isAtHome) return;
  for (const std::string& line : cookieLines(record_.options.cookies)) {
    curl_easy_setopt(easy_.get(), CURLOPT_COOKIELIST, line.c_str());
  }
}

std::string TransferRequest::header(const char* name) const {
  return headerAt(easy_.get(), name, 0).value_or(std::string());
}

bool TransferRequest::contradicts(const char* name) const {
  const std::string first = header(name);
  for (size_t index = 1;; ++index) {
    const auto other = headerAt(easy_.get(), name, index);
    if (!other) return false;
    if (*other != first) return true;
  }
}

std::optional<std::string> TransferRequest::redirection() const {
  long status = 0;
  char* url = nullptr;
  curl_easy_getinfo(easy_.get(), CURLINFO_RESPONSE_CODE, &status);
  curl_easy_getinfo(easy_.get(), CURLINFO_EFFECTIVE_URL, &url);
  const std::string location = status >= 300 && status < 400 ? header("Location") : std::string();
  if (location.empty() || !url) return std::nullopt;
  return resolvedURL(url, location);
}

bool TransferRequest::follow(const std::string& url) {
  if (++redirects_ > maximumRedirects) return false;
  aimAt(url);
  return true;
}

}  // namespace tarn
