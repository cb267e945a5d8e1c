#pragma once

#include <memory>

#include "app/Commands.h"
#include "app/InProcessClient.h"
#include "engine/Host.h"
#include "serve/ClientServer.h"

namespace tarn {

/// An engine in this process: the host of a home, started, and the socket on which it serves other commands. Belongs to
/// the thread that made it.
class OwnEngine {
 public:
  /// Says on standard error when other commands cannot reach it. Throws HomeInUse when another process owns the home,
  /// Error when there is none.
  OwnEngine(const Path& home, FileManager& files, const GlobalOptions& global);

  Host& host() { return host_; }
  InProcessClient& client() { return client_; }
  ClientServer& clients() { return clients_; }

 private:
  Host host_;
  ClientServer clients_;
  InProcessClient client_;
};

}  // namespace tarn
