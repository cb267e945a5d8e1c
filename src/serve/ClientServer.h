#pragma once

#include <memory>
#include <stop_token>
#include <string>
#include <vector>

#include "platform/Capacitor.h"
#include "platform/FileManager.h"

namespace tarn {

/// Serves plug-ins to other processes of the same user, on the socket of a home: the messages of a page, one JSON
/// object a line, after a first line that tells the protocol. docs/bridge.md has the rest. Runs on a thread of its
/// own; commands run on another, one at a time.
class ClientServer {
 public:
  /// The plug-ins must outlive the server. Events are the first one's.
  explicit ClientServer(const std::vector<CAPPlugin*>& plugins);
  /// Cuts all clients off. A command that has begun is waited for; its answer is dropped.
  ~ClientServer();
  ClientServer(const ClientServer&) = delete;
  ClientServer& operator=(const ClientServer&) = delete;

  /// Lets clients in; the caller owns the home. Throws Error when the home can have no socket.
  void listen(const Path& home);

  /// Sends an event to every client. From any thread; events of one thread keep their order.
  void sendEvent(const std::string& name, const JSObject& data);

  /// True while any client is connected. From any thread.
  bool hasClients() const;

  /// Waits until no client is connected, and lets none in from then on; gives up at a stop.
  void closeWhenUnused(const std::stop_token& stop);

 private:
  class Core;
  std::unique_ptr<Core> core_;
};

}  // namespace tarn
