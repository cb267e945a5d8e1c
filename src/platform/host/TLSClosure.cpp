#include "platform/host/TLSClosure.h"

#include <curl/curl.h>
#include <openssl/ssl.h>

namespace tarn {
namespace {

using Flag = std::shared_ptr<std::atomic<bool>>;

void freeFlag(void*, void* flag, CRYPTO_EX_DATA*, int, long, void*) {
  const std::unique_ptr<Flag> released(static_cast<Flag*>(flag));
}

/// Where a context keeps its flag. libcurl makes a context for each connection.
int flagIndex() {
  static const int index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, &freeFlag);
  return index;
}

const Flag* flagOf(const SSL* connection) {
  return static_cast<const Flag*>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(connection), flagIndex()));
}

void onInfo(const SSL* connection, int where, int alert) {
  const bool isClosure = where == SSL_CB_READ_ALERT && (alert & 0xFF) == SSL_AD_CLOSE_NOTIFY;
  const Flag* const flag = isClosure ? flagOf(connection) : nullptr;
  if (flag) **flag = true;
}

CURLcode onContext(CURL*, void* context, void*) {
  auto* const connections = static_cast<SSL_CTX*>(context);
  auto flag = std::make_unique<Flag>(std::make_shared<std::atomic<bool>>(false));
  if (SSL_CTX_set_ex_data(connections, flagIndex(), flag.get()) != 1) return CURLE_OUT_OF_MEMORY;
  flag.release();  // NOLINT(bugprone-unused-return-value): the context has it
  SSL_CTX_set_info_callback(connections, &onInfo);
  return CURLE_OK;
}

}  // namespace

void watchClosures(void* easy) {
  curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, &onContext);
}

TLSClosure closureOf(void* easy) {
  curl_tlssessioninfo* session = nullptr;
  const CURLcode code = curl_easy_getinfo(easy, CURLINFO_TLS_SSL_PTR, &session);
  if (code != CURLE_OK || !session || session->backend != CURLSSLBACKEND_OPENSSL || !session->internals) return nullptr;
  const Flag* const flag = flagOf(static_cast<const SSL*>(session->internals));
  return flag ? *flag : nullptr;
}

}  // namespace tarn
