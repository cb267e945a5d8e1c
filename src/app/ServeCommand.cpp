#include <algorithm>
#include <chrono>
#include <mutex>

#include "app/Commands.h"
#include "app/HostSession.h"
#include "app/Output.h"
#include "app/serve/BridgeServer.h"
#include "app/serve/HomeToken.h"

namespace tarn {
namespace {

/// The application's life as the pages drive it. Thread-safe.
class PageDrivenLife {
 public:
  PageDrivenLife(HostApplication& application, bool hasLimit) : application_(application), hasLimit_(hasLimit) {}

  void setActive(bool isActive) {
    std::lock_guard guard(mutex_);
    isActive_ = isActive;
    isActive ? application_.enterForeground() : application_.enterBackground();
  }

  /// Has the next stored run taken up, if none is active. With a limit on background time that waits for a page.
  void takeUpStoredRun() {
    std::lock_guard guard(mutex_);
    if (!isActive_ && hasLimit_) return;
    application_.enterForeground();
    if (!isActive_) application_.enterBackground();
  }

 private:
  HostApplication& application_;
  const bool hasLimit_;
  std::mutex mutex_;
  bool isActive_ = true;
};

/// The runs that an earlier process has left. The engine starts the first of them by itself; each further one when the
/// application comes to the foreground, which no page may do for long.
class RunsLeft {
 public:
  explicit RunsLeft(Host& host) : host_(host), left_(host.pendingRuns()) {}

  /// How long to wait for an event before the next look; for ever when nothing is left.
  std::optional<std::chrono::milliseconds> pause() const {
    return left_.empty() ? std::nullopt : std::optional(lookPause);
  }

  void look(PageDrivenLife& life) {
    const auto now = std::chrono::steady_clock::now();
    if (left_.empty() || now - lastLook_ < lookPause) return;
    lastLook_ = now;
    const auto pending = host_.pendingRuns();
    std::erase_if(left_, [&](int64_t id) { return std::ranges::find(pending, id) == pending.end(); });
    if (!left_.empty()) life.takeUpStoredRun();
  }

 private:
  static constexpr std::chrono::milliseconds lookPause{3000};

  Host& host_;
  std::vector<int64_t> left_;
  std::chrono::steady_clock::time_point lastLook_ = std::chrono::steady_clock::now();
};

}  // namespace

int serveCommand(const GlobalOptions& global, const ServeOptions& options) {
  HostSession session(global);
  Host& host = session.host();
  EngineClient& client = session.client();
  PageDrivenLife life(host.application(), global.backgroundLimit.has_value());
  RunsLeft runsLeft(host);
  BridgeServer server(session.files(), host.photos(), host.plugin(),
                      {.port = options.port, .webFolder = options.webFolder, .token = homeToken(session.home())},
                      [&life](bool isActive) { life.setActive(isActive); });
  printLine(server.entryAddress());
  while (!client.isInterrupted()) {
    if (const auto event = client.nextEvent(runsLeft.pause())) server.sendEvent(event->name, event->data);
    runsLeft.look(life);
  }
  printFailure("Interrupted; what has been done is kept. The next start goes on with it.");
  return ExitCode::interrupted;
}

}  // namespace tarn
