#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "app/serve/RequestHead.h"

namespace tarn {

/// Why a request gets no answer: an HTTP status, and words for the person at the browser.
struct Refusal {
  int status;
  std::string words;
};

/// Who may ask. A page of another site can reach a loopback port too, by its address or by a name of its own that it
/// has pointed here, so each request must name this host and nothing else, come from this origin, and carry the token.
class RequestCheck {
 public:
  RequestCheck(uint16_t port, std::string token);

  /// "http://127.0.0.1:PORT".
  const std::string& origin() const { return origin_; }
  /// The one link from which a browser gets its cookie.
  std::string entryAddress() const { return origin_ + "/?token=" + token_; }
  /// The Set-Cookie value that a good entry is answered with.
  std::string cookie() const;

  /// Nothing when the request is good. `isSocket` asks for the field Origin, which a browser never leaves out there.
  std::optional<Refusal> refuse(const RequestHead& head, const RequestTarget& target, bool isSocket) const;

  /// Whether this is the printed link, with whatever token. It may be clicked on any page.
  static bool isEntry(const RequestTarget& target);

 private:
  bool hasToken(const RequestHead& head, const RequestTarget& target) const;

  const std::string token_;
  const std::string host_;
  const std::string origin_;
  const std::string cookieName_;
};

}  // namespace tarn
