#include "platform/host/TransferFailure.h"

#include <curl/curl.h>

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

auto find(int code) {
  return std::ranges::find(transientFailures, code, [](const auto& failure) { return failure.first; });
}

}  // namespace

bool TransferFailure::isTransient() const {
  return find(code) != transientFailures.end();
}

std::string TransferFailure::why() const {
  if (code == CURLE_COULDNT_CONNECT && systemError == ECONNREFUSED) return "connection refused";
  const auto* const known = find(code);
  return known == transientFailures.end() ? text : std::string(known->second);
}

}  // namespace tarn
