#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

#include "platform/Capacitor.h"

namespace tarn {

/// A client of a plug-in, as a page is one: calls its methods and takes its events in their order. Thread-safe; it is
/// the plug-in's listener while it lives.
class EngineClient {
 public:
  struct Event {
    std::string name;
    JSObject data;
  };

  explicit EngineClient(CAPPlugin& plugin);
  ~EngineClient();
  EngineClient(const EngineClient&) = delete;
  EngineClient& operator=(const EngineClient&) = delete;

  /// Calls a method and waits for its answer.
  CAPPluginCall::Answer call(const std::string& method, JSObject options = {});

  /// Waits for the next event; nothing when none comes in time, or after an interrupt.
  std::optional<Event> nextEvent(std::optional<std::chrono::milliseconds> timeout = std::nullopt);

  /// Waits, a moment at most, until the engine has let go of a download that has told its end: then nothing of it is
  /// left in the stores.
  void waitUntilGone(int64_t id);

  /// Ends all waits for events, now and later.
  void interrupt();
  bool isInterrupted() const;

 private:
  CAPPlugin& plugin_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Event> events_;
  bool isInterrupted_ = false;
};

}  // namespace tarn
