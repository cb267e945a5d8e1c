#pragma once

#include <memory>
#include <mutex>
#include <stop_token>

#include "api/EngineClient.h"
#include "api/OwnEngine.h"
#include "api/detail/SocketClient.h"
#include "platform/host/PosixFileManager.h"

namespace tarn {

/// The engine of a home, as a process drives it: the one that another process runs there, else one of its own, which
/// then serves other processes too. When the other process ends, the session goes on with the next one, or becomes the
/// engine itself. Belongs to the thread that made it.
class EngineSession : public EngineClient {
 public:
  /// Throws Error when there is no home.
  explicit EngineSession(EngineOptions options);

  /// Returns with an engine, or after an interrupt. Throws Error when the home cannot be used, or its owner lets nobody
  /// in.
  void join();

  /// Joins the engine that another process runs there; false if none does, or it lets nobody in. When that ends, calls
  /// throw EngineLost.
  bool joinRunning();

  using EngineClient::call;
  /// A call whose engine is lost is made again, but for one that must not run twice: that throws EngineLost.
  Answer call(const std::string& plugin, const std::string& method, JSObject options) override;
  std::optional<Event> nextEvent(std::optional<std::chrono::milliseconds> timeout) override;
  void interrupt() override;
  bool isInterrupted() const override;

  /// Interrupts, and ends this process's engine too, but for one that others use, which the next call ends. Returns
  /// false for that one. From any thread.
  bool end();
  /// True while others use this process's engine. From any thread.
  bool isShared() const;
  /// Waits until nobody else uses this process's engine, or it is ended.
  void waitUntilUnused();

 private:
  bool tryToJoin();
  void take(std::unique_ptr<OwnEngine> own, std::unique_ptr<SocketClient> other);
  EngineClient& client();
  EngineClient* clientUnlocked();

  const EngineOptions options_;
  const Path home_;
  PosixFileManager files_;

  mutable std::mutex mutex_;  ///< for what follows, which other threads look at
  std::unique_ptr<SocketClient> other_;
  std::unique_ptr<OwnEngine> own_;
  bool isInterrupted_ = false;
  std::stop_source stop_;
  bool mayLead_ = true;  ///< or else it only asks an engine that runs

  bool hasChanged_ = false;  ///< which nextEvent() has not told yet
};

}  // namespace tarn
