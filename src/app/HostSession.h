#pragma once

#include "app/Commands.h"
#include "app/EngineClient.h"
#include "app/Interrupt.h"
#include "engine/Host.h"
#include "platform/host/PosixFileManager.h"

namespace tarn {

/// What a command needs that drives the engine: the host of the home, started; a client that takes its events; and a
/// watcher that ends both at an interrupt. Belongs to the thread that made it.
class HostSession {
 public:
  /// Says on standard error what is wrong with the stored work. Throws Error when there is no home, or another process
  /// owns it.
  explicit HostSession(const GlobalOptions& global);

  const Path& home() const { return home_; }
  FileManager& files() { return files_; }
  Host& host() { return host_; }
  EngineClient& client() { return client_; }

 private:
  const Path home_;
  PosixFileManager files_;
  Host host_;
  EngineClient client_;
  InterruptWatcher watcher_;
};

}  // namespace tarn
