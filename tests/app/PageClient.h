#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/Capacitor.h"

namespace tarn::test {

/// Sends a text to 127.0.0.1, byte by byte as it stands, and reads the answer to its end.
std::string askServer(uint16_t port, const std::string& request);

/// The WebSocket of a page, each operation waited for.
class PageClient {
 public:
  struct Greeting {
    std::string page;
    std::string epoch = {};
    int64_t seen = 0;
  };

  /// Throws std::runtime_error when it is refused. A `receiveBuffer` above 0 is the size of the socket's, in bytes.
  PageClient(uint16_t port, const std::string& cookie, const Greeting& greeting, int receiveBuffer = 0);
  /// Drops the connection without a word.
  ~PageClient();
  PageClient(const PageClient&) = delete;
  PageClient& operator=(const PageClient&) = delete;

  /// False when the connection is gone.
  bool send(const std::string& message, bool isText = true);
  void command(const std::string& id, const std::string& method, const JSObject& options = {});

  /// The next message as text; empty when the connection is gone.
  std::string next();
  /// The next message that holds these words; those before it are dropped.
  std::string nextWith(const std::string& words);

 private:
  class Socket;
  std::unique_ptr<Socket> socket_;
};

}  // namespace tarn::test
