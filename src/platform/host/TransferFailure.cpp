#include "platform/host/TransferFailure.h"

#include <curl/curl.h>
#include <openssl/x509_vfy.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>
#include <utility>

namespace tarn {
namespace {

/// The codes that are worth another try, in words.
constexpr std::array<std::pair<int, std::string_view>, 11> transientFailures{{
    {CURLE_COULDNT_RESOLVE_PROXY, "the proxy was not found"},
    {CURLE_COULDNT_RESOLVE_HOST, "the server was not found"},
    {CURLE_COULDNT_CONNECT, "the server cannot be reached"},
    {CURLE_PARTIAL_FILE, "the connection broke off"},
    {CURLE_OPERATION_TIMEDOUT, "the server fell silent"},
    {CURLE_SSL_CONNECT_ERROR, "no secure connection came about"},
    {CURLE_GOT_NOTHING, "the server sent nothing"},
    {CURLE_SEND_ERROR, "the connection broke off"},
    {CURLE_RECV_ERROR, "the connection broke off"},
    {CURLE_HTTP2, "the connection broke off"},
    {CURLE_HTTP2_STREAM, "the connection broke off"},
}};

/// What is wrong with the server's certificate.
std::string certificateWords(long verification) {
  switch (verification) {
    case X509_V_OK:
    case X509_V_ERR_UNSPECIFIED:  // libcurl looks at the name first, and then at nothing else
      return "the server's certificate is for another name";
    case X509_V_ERR_CERT_HAS_EXPIRED:
      return "the server's certificate has expired";
    case X509_V_ERR_CERT_NOT_YET_VALID:
      return "the server's certificate is not valid yet";
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
      return "nobody whom this machine trusts has signed the server's certificate";
    default:
      return "the server's certificate cannot be trusted";
  }
}

auto find(int code) {
  return std::ranges::find(transientFailures, code, [](const auto& failure) { return failure.first; });
}

}  // namespace

bool TransferFailure::isTransient() const {
  return find(code) != transientFailures.end();
}

URLError TransferFailure::error() const {
  if (code != CURLE_PEER_FAILED_VERIFICATION) return {code, text};
  return {code, certificateWords(verification) + " (" + text + ")"};
}

std::string TransferFailure::why() const {
  if (code == CURLE_COULDNT_CONNECT && systemError == ECONNREFUSED) return "connection refused";
  const auto* const known = find(code);
  return known == transientFailures.end() ? text : std::string(known->second);
}

}  // namespace tarn
