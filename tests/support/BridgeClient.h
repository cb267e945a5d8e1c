#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/Capacitor.h"

namespace tarn::test {

/// A page, as a plug-in sees it: calls methods, waits for the answers, and remembers every event. Thread-safe. It is
/// the plug-in's listener for as long as it lives.
class BridgeClient {
 public:
  using Answer = CAPPluginCall::Answer;
  using Predicate = std::function<bool(const JSObject&)>;
  struct Event {
    std::string name;
    JSObject data;
  };
  static constexpr std::chrono::seconds patience{60};

  explicit BridgeClient(CAPPlugin& plugin) : plugin_(plugin) {
    plugin_.setEventListener([this](const std::string& name, const JSObject& data) {
      std::lock_guard guard(mutex_);
      events_.push_back({name, data});
      arrived_.notify_all();
    });
  }
  ~BridgeClient() { plugin_.setEventListener({}); }
  BridgeClient(const BridgeClient&) = delete;
  BridgeClient& operator=(const BridgeClient&) = delete;

  /// Calls a method and waits for its answer; throws std::runtime_error when none comes in time.
  Answer call(const std::string& method, JSObject options = {}) {
    const auto answer = std::make_shared<std::promise<Answer>>();
    auto future = answer->get_future();
    plugin_.call(std::make_shared<CAPPluginCall>(method, std::move(options),
                                                 [answer](const Answer& given) { answer->set_value(given); }));
    if (future.wait_for(patience) != std::future_status::ready) throw std::runtime_error("no answer to " + method);
    return future.get();
  }

  /// The first event of this name, past or to come, that the predicate takes; nothing when none comes in time.
  std::optional<JSObject> waitForEvent(const std::string& name, const Predicate& predicate = {},
                                       std::chrono::milliseconds timeout = patience) {
    std::unique_lock lock(mutex_);
    auto found = events_.end();
    arrived_.wait_for(lock, timeout, [&] {
      found = std::ranges::find_if(
          events_, [&](const Event& event) { return event.name == name && (!predicate || predicate(event.data)); });
      return found != events_.end();
    });
    return found == events_.end() ? std::nullopt : std::optional(found->data);
  }

  std::vector<Event> events() const {
    std::lock_guard guard(mutex_);
    return events_;
  }

 private:
  CAPPlugin& plugin_;
  mutable std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<Event> events_;
};

}  // namespace tarn::test
