#include "app/serve/RequestCheck.h"

#include <algorithm>
#include <utility>

#include "app/serve/HomeToken.h"

namespace tarn {

RequestCheck::RequestCheck(uint16_t port, std::string token)
    : token_(std::move(token)),
      host_("127.0.0.1:" + std::to_string(port)),
      origin_("http://" + host_),
      cookieName_("tarn-" + std::to_string(port)) {}

std::string RequestCheck::cookie() const {
  return cookieName_ + "=" + token_ + "; HttpOnly; SameSite=Strict; Path=/";
}

bool RequestCheck::isEntry(const RequestTarget& target) {
  return (target.path == "/" || target.path == "/index.html") && target.query.contains("token");
}

std::optional<Refusal> RequestCheck::refuse(const RequestHead& head, const RequestTarget& target, bool isSocket) const {
  const auto hosts = head.allFields("host");
  if (hosts.size() != 1 || hosts.front() != host_) return Refusal{421, "This is " + host_ + " and no other host."};

  const auto origins = head.allFields("origin");
  if ((isSocket && origins.empty()) || origins.size() > 1 || (origins.size() == 1 && origins.front() != origin_)) {
    return Refusal{403, "Pages of other origins may not ask here."};
  }
  const std::string_view site = head.field("sec-fetch-site").value_or("none");
  const bool isClickedLink =
      isEntry(target) && head.field("sec-fetch-mode") == "navigate" && head.field("sec-fetch-dest") == "document";
  if (site != "same-origin" && site != "none" && !isClickedLink) {
    return Refusal{403, "Pages of other sites may not ask here."};
  }
  if (!hasToken(head, target)) {
    return Refusal{403, "The token is missing or wrong. Open the address that `tarn serve` has printed."};
  }
  if (head.method != "GET") return Refusal{405, "Only GET is answered here."};
  return std::nullopt;
}

bool RequestCheck::hasToken(const RequestHead& head, const RequestTarget& target) const {
  if (isEntry(target)) return isSameSecret(token_, target.parameter("token"));
  return std::ranges::any_of(head.cookies(cookieName_),
                             [this](std::string_view given) { return isSameSecret(token_, given); });
}

}  // namespace tarn
