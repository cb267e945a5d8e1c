#include "api/ServedPage.h"

#include <chrono>

#include "api/detail/SocketClient.h"
#include "engine/HostPlugin.h"

namespace tarn {

std::optional<std::string> servedPage(const Path& home) {
  constexpr std::chrono::seconds patience{5};
  const auto client = SocketClient::connect(home);
  if (!client || !client->isLetIn(patience)) return std::nullopt;
  const auto answer = client->call(HostPlugin::name(), "getPage", {});
  const auto* address = valueAt<std::string>(answer.data, "address");
  return address ? std::optional(*address) : std::nullopt;
}

}  // namespace tarn
