#include "serve/detail/RequestCheck.h"

#include <algorithm>
#include <utility>

#include "serve/HomeToken.h"

namespace tarn {

RequestCheck::RequestCheck(uint16_t port, std::string token)
    : token_(std::move(token)),
      port_(std::to_string(port)),
      host_("127.0.0.1:" + port_),
      origin_("http://" + host_),
      cookieName_("tarn-" + port_),
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

std::optional<Refusal> RequestCheck::refuse(const RequestHead& head, const RequestTarget& target, bool isSocket,
                                            const std::vector<std::string_view>& methods) const {
  if (auto refusal = refuseHost(head)) return refusal;
  const bool isReading = head.method == "GET" || head.method == "HEAD";
  const bool needsOrigin = isSocket || !isReading;
  const auto origins = head.allFields("origin");
  if ((needsOrigin && origins.empty()) || origins.size() > 1 || (origins.size() == 1 && origins.front() != origin_)) {
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
  if (std::ranges::find(methods, head.method) == methods.end()) {
    return Refusal{405, "This is not what can be done here."};
  }
  return std::nullopt;
}

std::optional<Refusal> RequestCheck::refuseHost(const RequestHead& head) const {
  const auto hosts = head.allFields("host");
  if (hosts.size() == 1 && hosts.front() == host_) return std::nullopt;
  if (hosts.size() == 1 && (hosts.front() == "localhost:" + port_ || hosts.front() == "[::1]:" + port_)) {
    return Refusal{308, "This is " + host_ + ".", origin_ + head.target};
  }
  return Refusal{421, "This is " + host_ + " and no other host."};
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
