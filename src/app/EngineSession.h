#pragma once

#include <memory>
#include <mutex>
#include <stop_token>

#include "app/Commands.h"
#include "app/EngineClient.h"
#include "app/Interrupt.h"
#include "app/OwnEngine.h"
#include "app/SocketClient.h"
#include "platform/host/PosixFileManager.h"

namespace tarn {

/// The engine of a home, as a command drives it: the one that another process runs there, else one of its own, which
/// then serves other commands too. When the other process ends, the session goes on with the next one, or becomes the
/// engine itself. It ends all waits at an interrupt. Belongs to the thread that made it.
class EngineSession : public EngineClient {
 public:
  /// Says on standard error what is wrong with the stored work. Throws Error when there is no home, or its owner lets
  /// nobody in.
  explicit EngineSession(const GlobalOptions& global);

  using EngineClient::call;
  using EngineClient::nextEvent;
  /// A call whose engine is lost is made again, but for one that must not run twice: that throws EngineLost.
  Answer call(const std::string& plugin, const std::string& method, JSObject options) override;
  std::optional<Event> nextEvent(std::optional<std::chrono::milliseconds> timeout) override;
  void interrupt() override;
  bool isInterrupted() const override;

  /// The end of a command, once it has said everything: its own engine goes on until no other command uses it. Returns
  /// `code`.
  int leave(int code);

 private:
  void join();
  bool tryToJoin();
  void take(std::unique_ptr<OwnEngine> own, std::unique_ptr<SocketClient> other);
  bool takeInterrupt();
  void detach();
  EngineClient& client();
  EngineClient* clientUnlocked();

  const GlobalOptions& global_;
  const Path home_;
  PosixFileManager files_;

  mutable std::mutex mutex_;  ///< for what follows, which the watcher looks at
  std::unique_ptr<SocketClient> other_;
  std::unique_ptr<OwnEngine> own_;
  bool isInterrupted_ = false;
  bool isLeaving_ = false;
  std::stop_source stop_;

  bool hasChanged_ = false;  ///< which nextEvent() has not told yet
  InterruptWatcher watcher_;
};

}  // namespace tarn
