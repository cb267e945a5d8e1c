#pragma once

#include <string>

#include "platform/Error.h"

namespace tarn {

/// How an HTTP exchange has failed, as libcurl tells it.
struct TransferFailure {
  int code = 0;           ///< CURLcode
  int systemError = 0;    ///< errno of a connection that did not come about, or 0
  long verification = 0;  ///< OpenSSL's X509_V_ code about the server's certificate
  std::string text = {};  ///< libcurl's words

  /// A failure of the way to the server, not of the request: worth another try.
  bool isTransient() const;
  URLError error() const;
  /// For people, without a stop: "connection refused".
  std::string why() const;
};

}  // namespace tarn
