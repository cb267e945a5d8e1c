#pragma once

#include <tarn/engine.h>

#include "api/InProcessClient.h"
#include "engine/Host.h"
#include "serve/ClientServer.h"

namespace tarn {

/// An engine in this process: the host of a home, started, and the socket on which it serves other processes. Belongs
/// to the thread that made it.
class OwnEngine {
 public:
  /// Warns when other processes cannot reach it. Throws HomeInUse when another process owns the home, Error when there
  /// is none.
  OwnEngine(const Path& home, FileManager& files, const EngineOptions& options);

  Host& host() { return host_; }
  InProcessClient& client() { return client_; }
  ClientServer& clients() { return clients_; }

 private:
  Host host_;
  ClientServer clients_;
  InProcessClient client_;
};

}  // namespace tarn
