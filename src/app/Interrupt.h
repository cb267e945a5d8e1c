#pragma once

#include <functional>
#include <thread>

#include "platform/host/Descriptor.h"

namespace tarn {

/// Blocks SIGINT and SIGTERM in this thread and those that it starts from now on. Call before the first thread starts.
void blockInterrupts();

/// Waits for SIGINT and SIGTERM on a thread of its own: the first calls the handler there, a second ends the process at
/// once with 130.
class InterruptWatcher {
 public:
  /// Throws PosixError when the system is out of descriptors.
  explicit InterruptWatcher(std::function<void()> handler);
  ~InterruptWatcher();
  InterruptWatcher(const InterruptWatcher&) = delete;
  InterruptWatcher& operator=(const InterruptWatcher&) = delete;

 private:
  Descriptor stopEvent_;
  Descriptor signals_;
  std::thread thread_;
};

}  // namespace tarn
