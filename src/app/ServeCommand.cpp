#include <chrono>
#include <mutex>

#include "app/Commands.h"
#include "app/HostSession.h"
#include "app/Output.h"
#include "serve/BridgeServer.h"
#include "serve/HomeToken.h"

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

/// Has stored runs taken up, whichever process left them, or whatever kept them from going on. The engine starts one
/// when the application comes to the foreground, which no page may do for long.
class StoredRuns {
 public:
  static constexpr std::chrono::milliseconds pause{3000};

  explicit StoredRuns(Host& host) : host_(host) {}

  void look(PageDrivenLife& life) {
    const auto now = std::chrono::steady_clock::now();
    if (now - lastLook_ < pause) return;
    lastLook_ = now;
    if (!host_.isProcessing() && !host_.pendingRuns().empty()) life.takeUpStoredRun();
  }

 private:
  Host& host_;
  std::chrono::steady_clock::time_point lastLook_ = std::chrono::steady_clock::now();
};

}  // namespace

int serveCommand(const GlobalOptions& global, const ServeOptions& options) {
  HostSession session(global);
  Host& host = session.host();
  EngineClient& client = session.client();
  PageDrivenLife life(host.application(), global.backgroundLimit.has_value());
  StoredRuns storedRuns(host);
  BridgeServer server(session.files(), host.photos(), host.plugin(),
                      {.port = options.port, .webFolder = options.webFolder, .token = homeToken(session.home())},
                      [&life](bool isActive) { life.setActive(isActive); });
  printLine(server.entryAddress());
  while (!client.isInterrupted()) {
    if (const auto event = client.nextEvent(StoredRuns::pause)) server.sendEvent(event->name, event->data);
    storedRuns.look(life);
  }
  printFailure("Interrupted; what has been done is kept. The next start goes on with it.");
  return ExitCode::interrupted;
}

}  // namespace tarn
