#pragma once

#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "platform/host/Descriptor.h"

namespace tarn {

/// Blocks SIGINT and SIGTERM in this thread and those that it starts from now on. Call before the first thread starts.
void blockInterrupts();

/// Waits for SIGINT and SIGTERM on a thread of its own, and calls the handler there. Once that has told that the
/// process is about to end, a further one ends it at once with 130.
class InterruptWatcher {
 public:
  /// With `lastWords`, for standard error, who sends SIGTERM need not wait: if the process has not ended a second
  /// later, it says them and ends with 130 where it is. Throws PosixError when the system is out of descriptors.
  explicit InterruptWatcher(std::function<bool()> handler, std::optional<std::string> lastWords = {});
  ~InterruptWatcher();
  InterruptWatcher(const InterruptWatcher&) = delete;
  InterruptWatcher& operator=(const InterruptWatcher&) = delete;

 private:
  Descriptor stopEvent_;
  Descriptor signals_;
  std::thread thread_;
};

}  // namespace tarn
