#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>

#include "api/EngineClient.h"
#include "engine/Host.h"

namespace tarn {

/// A client of an engine in its own process. It is the bridge's listener while it lives.
class InProcessClient : public EngineClient {
 public:
  /// The host must outlive the client. `relay` hears each event too.
  explicit InProcessClient(Host& host, CAPPlugin::EventListener relay = {});
  ~InProcessClient() override;
  InProcessClient(const InProcessClient&) = delete;
  InProcessClient& operator=(const InProcessClient&) = delete;

  using EngineClient::call;
  Answer call(const std::string& plugin, const std::string& method, JSObject options) override;
  std::optional<Event> nextEvent(std::optional<std::chrono::milliseconds> timeout) override;
  void interrupt() override;
  bool isInterrupted() const override;

 private:
  Host& host_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Event> events_;
  bool isInterrupted_ = false;
};

}  // namespace tarn
