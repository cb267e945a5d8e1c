#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "serve/detail/RequestHead.h"

namespace tarn {

/// Why a request gets no answer: an HTTP status, and words for the person at the browser.
struct Refusal {
  int status;
  std::string words;
  std::string location = {};  ///< of a 308
};

/// What a request asks for.
enum class Door {
  entry,   ///< the printed link: it carries the home's token, and gives the browser its cookie
  rejoin,  ///< a page of an earlier start asks for a challenge, or brings its proof and gets the cookie of this one
  inside,  ///< all else: below the path of this start, with the cookie
};

/// Who may ask. A page of another site can reach a loopback port too, by its address or by a name of its own that it
/// has pointed here, so each request must name this host and nothing else, and come from this origin.
///
/// A cookie knows no ports: the browser sends it to any server of 127.0.0.1 that it visits. So the cookie holds a
/// secret of this start, and belongs to a path of this start that no other server can know; all is served below that
/// path.
class RequestCheck {
 public:
  /// `token` is the home's. Throws PosixError.
  RequestCheck(uint16_t port, std::string token);

  /// The one link from which a browser gets its cookie.
  std::string entryAddress() const { return origin_ + "/?token=" + token_; }
  /// The Set-Cookie value that a good entry is answered with.
  std::string cookie() const;
  /// "/<32 hexadecimal digits>/": what is served is below it.
  const std::string& base() const { return base_; }
  /// The key of the home's pages, and what a page of an earlier start has to prove that it knows it with.
  const std::string& key() const { return key_; }
  const std::string& challenge() const { return challenge_; }

  static Door door(const RequestTarget& target);
  /// True for a rejoin that brings its proof.
  static bool hasProof(const RequestTarget& target) { return target.query.contains("proof"); }

  /// The target as seen from the path of this start, "/" and what follows; nothing when it is elsewhere.
  std::optional<RequestTarget> inside(const RequestTarget& target) const;

  /// Nothing when the request is good: then its method is one of `methods`. `isSocket`, and a method that may change
  /// something, asks for the field Origin, which a browser never leaves out there. Other names of this host are sent to
  /// its one name.
  std::optional<Refusal> refuse(const RequestHead& head, const RequestTarget& target, bool isSocket,
                                const std::vector<std::string_view>& methods) const;

 private:
  std::optional<Refusal> refuseHost(const RequestHead& head) const;
  bool isKnown(const RequestHead& head, const RequestTarget& target) const;

  const std::string token_;
  const std::string port_;
  const std::string host_;
  const std::string origin_;
  const std::string cookieName_;
  const std::string secret_;
  const std::string base_;
  const std::string challenge_;
  const std::string key_;
};

}  // namespace tarn
