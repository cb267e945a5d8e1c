#include "app/CommandEngine.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>

#include "app/Output.h"
#include "platform/host/Descriptor.h"

namespace tarn {
namespace {

/// A terminal that is closed, or a reader of the output that waits for its end, has nothing to do with this process any
/// more.
void detach() {
  printFailure("Other commands still use this engine: it goes on until they are done. Interrupt again to end it.");
  std::signal(SIGHUP, SIG_IGN);
  const Descriptor nowhere(::open("/dev/null", O_RDWR | O_CLOEXEC));
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) ::dup2(*nowhere, stream);
}

}  // namespace

EngineOptions engineOptions(const GlobalOptions& global) {
  return {.home = global.home ? std::optional<std::filesystem::path>(*global.home) : std::nullopt,
          .backgroundLimit = global.backgroundLimit,
          .keepsLog = !global.verbose,
          .warn = printFailure};
}

CommandEngine::CommandEngine(const GlobalOptions& global)
    : engine_(engineOptions(global)), watcher_([this] { return takeInterrupt(); }) {
  try {
    engine_.open();
    const Engine::StoredWork stored = engine_.storedWork();
    for (const std::string& words : stored.problems) printFailure(words + ".");
    for (const std::string& words : stored.notices) printFailure(words + ".");
  } catch (const EngineInterrupted&) {
    // The command's first call says so again.
  }
}

/// The first interrupt ends the command; returns whether the process is about to end.
bool CommandEngine::takeInterrupt() {
  const bool isEnding = engine_.interrupt();
  std::lock_guard guard(mutex_);
  if (!isEnding && isLeaving_) detach();
  return isEnding;
}

int CommandEngine::leave(int code) {
  {
    std::lock_guard guard(mutex_);
    isLeaving_ = true;
    const bool isShared = engine_.isShared();
    if (isShared && engine_.isInterrupted()) detach();
    if (isShared && !engine_.isInterrupted() && isTerminal(STDERR_FILENO)) {
      printNote("Other commands still use this engine: it ends with the last of them.");
    }
  }
  engine_.waitUntilUnused();
  return code;
}

}  // namespace tarn
