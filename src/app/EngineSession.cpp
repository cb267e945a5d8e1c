#include "app/EngineSession.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <thread>
#include <utility>

#include "app/Output.h"
#include "engine/Home.h"
#include "platform/host/Descriptor.h"

namespace tarn {
namespace {

using namespace std::chrono_literals;

/// How long the owner of a home may take to let this process in, while it starts or leaves.
constexpr std::chrono::seconds patience{30};
constexpr std::chrono::milliseconds pause{20};

/// A terminal that is closed, or a reader of the output that waits for its end, has nothing to do with this process any
/// more.
void detachStandardStreams() {
  std::signal(SIGHUP, SIG_IGN);
  const Descriptor nowhere(::open("/dev/null", O_RDWR | O_CLOEXEC));
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) ::dup2(*nowhere, stream);
}

}  // namespace

EngineSession::EngineSession(const GlobalOptions& global)
    : global_(global), home_(homeDirectory(global.home)), files_(home_), watcher_([this] { return takeInterrupt(); }) {
  try {
    join();
    for (const std::string& words : storedWork().problems) printFailure(words + ".");
  } catch (const CallInterrupted&) {
    // The command's first call says so again.
  }
}

/// Returns with an engine, or after an interrupt.
void EngineSession::join() {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!isInterrupted() && !tryToJoin()) {
    if (std::chrono::steady_clock::now() > deadline) throw HomeInUse(home_);
    std::this_thread::sleep_for(pause);
  }
}

/// False while the owner starts or leaves: the home has a lock without a socket, or a socket without a listener.
bool EngineSession::tryToJoin() {
  try {
    take(std::make_unique<OwnEngine>(home_, files_, global_), nullptr);
    return true;
  } catch (const HomeInUse&) {
    auto other = SocketClient::connect(home_);
    if (!other) return false;
    take(nullptr, std::move(other));
    return other_->isLetIn(patience);
  }
}

/// From now on an interrupt ends the waits for this engine, the one to be let in too.
void EngineSession::take(std::unique_ptr<OwnEngine> own, std::unique_ptr<SocketClient> other) {
  std::lock_guard guard(mutex_);
  own_ = std::move(own);
  other_ = std::move(other);
  if (isInterrupted_) clientUnlocked()->interrupt();
}

EngineClient* EngineSession::clientUnlocked() {
  if (own_) return &own_->client();
  return other_.get();
}

/// The engine of now. Only this thread changes it, so that it stays until this thread does.
EngineClient& EngineSession::client() {
  std::lock_guard guard(mutex_);
  EngineClient* const client = clientUnlocked();
  if (!client) throw CallInterrupted();
  return *client;
}

EngineClient::Answer EngineSession::call(const std::string& plugin, const std::string& method, JSObject options) {
  for (;;) {
    try {
      return client().call(plugin, method, options);
    } catch (const EngineLost&) {
      join();
      if (isInterrupted()) throw CallInterrupted();
      hasChanged_ = true;
      if (method == "saveVideo") throw;
    }
  }
}

std::optional<EngineClient::Event> EngineSession::nextEvent(std::optional<std::chrono::milliseconds> timeout) {
  if (std::exchange(hasChanged_, false)) return Event{engineChanged, {}};
  try {
    return client().nextEvent(timeout);
  } catch (const EngineLost&) {
    join();
    return Event{engineChanged, {}};
  }
}

void EngineSession::interrupt() {
  std::lock_guard guard(mutex_);
  isInterrupted_ = true;
  if (EngineClient* const client = clientUnlocked()) client->interrupt();
}

bool EngineSession::isInterrupted() const {
  std::lock_guard guard(mutex_);
  return isInterrupted_;
}

/// The first interrupt ends the command. It ends its engine too, but for one that others use, which the next one ends.
/// Returns whether the process is about to end.
bool EngineSession::takeInterrupt() {
  const bool isFirst = !isInterrupted();
  interrupt();
  std::lock_guard guard(mutex_);
  if (!own_) return true;
  if (isFirst && own_->clients().hasClients()) {
    if (isLeaving_) detach();
    return false;
  }
  stop_.request_stop();
  own_->host().interrupt();
  return true;
}

int EngineSession::leave(int code) {
  if (!own_) return code;
  own_->client().interrupt();  // nobody takes events any more
  {
    std::lock_guard guard(mutex_);
    isLeaving_ = true;
    const bool hasClients = own_->clients().hasClients();
    if (hasClients && isInterrupted_) detach();
    if (hasClients && !isInterrupted_ && ::isatty(STDERR_FILENO) == 1) {
      fmt::print(stderr, "Other commands still use this engine: it ends with the last of them.\n");
    }
  }
  own_->clients().closeWhenUnused(stop_.get_token());
  return code;
}

void EngineSession::detach() {
  printFailure("Other commands still use this engine: it goes on until they are done. Interrupt again to end it.");
  detachStandardStreams();
}

}  // namespace tarn
