#include "serve/detail/RequestCheck.h"

#include <algorithm>
#include <utility>

#include "serve/HomeToken.h"

namespace tarn {

RequestCheck::RequestCheck(uint16_t port, std::string token)
    : token_(std::move(token)),
      host_("127.0.0.1:" + std::to_string(port)),
      origin_("http://" + host_),
      cookieName_("tarn-" + std::to_string(port)),
      secret_(randomHex(32)),
      base_("/" + randomHex(16) + "/"),
      challenge_(randomHex(32)),
      key_(pageKey(token_)) {}

std::string RequestCheck::cookie() const {
  return cookieName_ + "=" + secret_ + "; HttpOnly; SameSite=Strict; Path=" + base_;
}

Door RequestCheck::door(const RequestTarget& target) {
  if (target.path == "/rejoin") return Door::rejoin;
  return target.path == "/" && target.query.contains("token") ? Door::entry : Door::inside;
}

std::optional<RequestTarget> RequestCheck::inside(const RequestTarget& target) const {
  if (!target.path.starts_with(base_)) return std::nullopt;
  return RequestTarget{.path = target.path.substr(base_.size() - 1), .query = target.query};
}

std::optional<Refusal> RequestCheck::refuse(const RequestHead& head, const RequestTarget& target, bool isSocket) const {
  const auto hosts = head.allFields("host");
  if (hosts.size() != 1 || hosts.front() != host_) return Refusal{421, "This is " + host_ + " and no other host."};

  const auto origins = head.allFields("origin");
  if ((isSocket && origins.empty()) || origins.size() > 1 || (origins.size() == 1 && origins.front() != origin_)) {
    return Refusal{403, "Pages of other origins may not ask here."};
  }
  const std::string_view site = head.field("sec-fetch-site").value_or("none");
  const bool isClickedLink = door(target) == Door::entry && head.field("sec-fetch-mode") == "navigate" &&
                             head.field("sec-fetch-dest") == "document";
  if (site != "same-origin" && site != "none" && !isClickedLink) {
    return Refusal{403, "Pages of other sites may not ask here."};
  }
  if (!isKnown(head, target)) {
    return Refusal{403, "This browser is not let in yet. Open the address that `tarn serve` has printed."};
  }
  if (head.method != "GET") return Refusal{405, "Only GET is answered here."};
  return std::nullopt;
}

bool RequestCheck::isKnown(const RequestHead& head, const RequestTarget& target) const {
  switch (door(target)) {
    case Door::entry:
      return isSameSecret(token_, target.parameter("token"));
    case Door::rejoin:
      return !hasProof(target) || isSameSecret(pageProof(key_, challenge_, origin_), target.parameter("proof"));
    case Door::inside:
      break;
  }
  return inside(target) && std::ranges::any_of(head.cookies(cookieName_),
                                               [this](std::string_view given) { return isSameSecret(secret_, given); });
}

}  // namespace tarn
