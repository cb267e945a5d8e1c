#pragma once

#include <atomic>
#include <deque>
#include <memory>
#include <string_view>

#include "api/EngineClient.h"
#include "platform/host/Descriptor.h"

namespace tarn {

/// A client of the engine that another process of this user runs in a home, over the home's socket.
class SocketClient : public EngineClient {
 public:
  /// Returns nothing when nobody listens. Throws Error when another user does.
  static std::unique_ptr<SocketClient> connect(const Path& home);

  /// Waits for the engine's first line, before all else; false when it does not come within `patience`, or after an
  /// interrupt. Throws EngineRefused if the engine is another version's.
  bool isLetIn(std::chrono::milliseconds patience);

  Answer call(const std::string& plugin, const std::string& method, JSObject options) override;
  std::optional<Event> nextEvent(std::optional<std::chrono::milliseconds> timeout) override;
  void interrupt() override;
  bool isInterrupted() const override { return isInterrupted_; }

 private:
  SocketClient(Path home, Descriptor socket);

  using Deadline = std::optional<std::chrono::steady_clock::time_point>;
  std::optional<std::string> nextLine(const Deadline& deadline);
  std::optional<JSObject> nextMessage(const Deadline& deadline);
  bool waitForBytes(const Deadline& deadline);
  void receive();
  void send(std::string_view text);

  const Path home_;
  const Descriptor socket_;
  const Descriptor wake_;
  std::atomic<bool> isInterrupted_ = false;
  std::string received_;
  size_t searched_ = 0;  ///< bytes of it that hold no end of a line
  std::deque<Event> events_;
  int64_t lastId_ = 0;
};

}  // namespace tarn
