#include "api/detail/EngineSession.h"

#include <thread>
#include <utility>

#include "engine/Home.h"

namespace tarn {
namespace {

using namespace std::chrono_literals;

/// How long the owner of a home may take to let this process in, while it starts or leaves.
constexpr std::chrono::seconds patience{30};
constexpr std::chrono::milliseconds pause{20};

std::optional<std::string> givenHome(const EngineOptions& options) {
  return options.home ? std::optional(options.home->string()) : std::nullopt;
}

}  // namespace

EngineSession::EngineSession(EngineOptions options)
    : options_(std::move(options)), home_(homeDirectory(givenHome(options_))), files_(home_) {}

void EngineSession::join() {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!isInterrupted() && !tryToJoin()) {
    if (std::chrono::steady_clock::now() > deadline) throw HomeInUse(home_);
    std::this_thread::sleep_for(pause);
  }
}

bool EngineSession::joinRunning() {
  mayLead_ = false;
  if (!files_.fileExists(home_)) return false;
  auto other = SocketClient::connect(home_);
  if (!other) return false;
  take(nullptr, std::move(other));
  return other_->isLetIn(patience);
}

/// False while the owner starts or leaves: the home has a lock without a socket, or a socket without a listener.
bool EngineSession::tryToJoin() {
  try {
    take(std::make_unique<OwnEngine>(home_, files_, options_), nullptr);
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
  if (!client) throw EngineInterrupted();
  return *client;
}

EngineClient::Answer EngineSession::call(const std::string& plugin, const std::string& method, JSObject options) {
  for (;;) {
    try {
      return client().call(plugin, method, options);
    } catch (const EngineLost&) {
      if (!mayLead_) throw;
      join();
      if (isInterrupted()) throw EngineInterrupted();
      hasChanged_ = true;
      const bool isRetry = valueAt<std::string>(options, "action", "").starts_with("retry");
      if (method == "saveVideo" || isRetry) throw;
    }
  }
}

std::optional<EngineClient::Event> EngineSession::nextEvent(std::optional<std::chrono::milliseconds> timeout) {
  if (std::exchange(hasChanged_, false)) return Event{Engine::changed, {}};
  try {
    return client().nextEvent(timeout);
  } catch (const EngineLost&) {
    if (!mayLead_) throw;
    join();
    return Event{Engine::changed, {}};
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

bool EngineSession::end() {
  std::lock_guard guard(mutex_);
  const bool isFirst = !std::exchange(isInterrupted_, true);
  if (EngineClient* const client = clientUnlocked()) client->interrupt();
  if (!own_) return true;
  if (isFirst && own_->clients().hasClients()) return false;
  stop_.request_stop();
  own_->host().interrupt();
  return true;
}

bool EngineSession::isShared() const {
  std::lock_guard guard(mutex_);
  return own_ && own_->clients().hasClients();
}

void EngineSession::waitUntilUnused() {
  if (!own_) return;
  own_->client().interrupt();  // nobody takes events any more
  own_->clients().closeWhenUnused(stop_.get_token());
}

}  // namespace tarn
