#pragma once

#include <tarn/engine.h>

#include <mutex>

#include "app/Commands.h"
#include "app/Interrupt.h"

namespace tarn {

/// Failures beside the work go to standard error, and the log to the home unless the user wants to see it.
EngineOptions engineOptions(const GlobalOptions& global);

/// The engine that a command uses. An interrupt ends its waits.
class CommandEngine {
 public:
  /// Says on standard error what is wrong with the stored work. Throws Error when there is no home, or its owner lets
  /// nobody in.
  explicit CommandEngine(const GlobalOptions& global);

  Engine& engine() { return engine_; }

  /// The end of the command, once it has said everything: its own engine goes on until no other command uses it.
  /// Returns `code`.
  int leave(int code);

 private:
  bool takeInterrupt();

  Engine engine_;
  std::mutex mutex_;
  bool isLeaving_ = false;  ///< which the watcher looks at
  InterruptWatcher watcher_;
};

}  // namespace tarn
