#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/Capacitor.h"
#include "platform/Clock.h"
#include "platform/Error.h"
#include "platform/FileManager.h"

namespace tarn {

/// The engine is gone, and with it the answer of a command.
class EngineLost : public Error {
 public:
  explicit EngineLost(std::string description) : Error("Engine", -1, std::move(description)) {}
};

/// An interrupt has come while a command waited for the engine.
class CallInterrupted : public Error {
 public:
  CallInterrupted() : Error("Engine", -1, "interrupted") {}
};

/// A client of an engine, wherever that runs: calls the methods of its plug-ins, as a page does, and takes its events
/// in their order. Belongs to one thread.
class EngineClient {
 public:
  using Answer = CAPPluginCall::Answer;

  struct Event {
    std::string name;
    JSObject data;
  };

  /// The name of the event that no engine sends: from now on another one answers, which knows what was stored.
  static constexpr const char* engineChanged = "engineChanged";

  /// What an engine knows of the end of a download.
  struct Outcome {
    std::optional<std::string> failure;  ///< in words
    std::optional<std::string> assetId;
  };

  /// What the stores of an engine's home hold.
  struct StoredWork {
    std::vector<int64_t> runs;       ///< downloads that wait for a run or are in one, oldest first
    std::vector<int64_t> records;    ///< downloads with a run's record, ended ones too
    std::vector<int64_t> transfers;  ///< downloads with a transfer
    bool hasTransfers = false;
    bool isProcessing = false;
    std::vector<std::string> problems;  ///< in words
  };

  virtual ~EngineClient() = default;

  /// Calls a method and waits for its answer. Throws EngineLost, CallInterrupted.
  virtual Answer call(const std::string& plugin, const std::string& method, JSObject options) = 0;

  /// Waits for the next event; nothing when none comes in time, or after an interrupt. Throws EngineLost.
  virtual std::optional<Event> nextEvent(std::optional<std::chrono::milliseconds> timeout) = 0;

  /// Ends all waits, now and later. From any thread.
  virtual void interrupt() = 0;
  virtual bool isInterrupted() const = 0;

  /// A method of the bridge.
  Answer call(const std::string& method, JSObject options = {});
  std::optional<Event> nextEvent() { return nextEvent(std::nullopt); }

  /// The command saveVideo; its options may choose the download's id.
  Answer saveVideo(JSObject options);
  /// The downloads that the engine has, by their ids.
  JSObject downloads();
  Outcome outcome(int64_t id);
  /// Where an asset stands in an album, or in any.
  std::optional<Path> assetPath(const std::string& assetId, const std::optional<std::string>& album = std::nullopt);
  /// Where the newest video stands that an album got under this name since then.
  std::optional<Path> savedSince(Date start, const std::string& album, const std::string& filename);
  StoredWork storedWork();
  /// Has the next stored run taken up, if none is active, and what has ended told again.
  void takeUpStoredRun();

  /// Waits, a moment at most, until the engine has let go of a download that has told its end: then nothing of it is
  /// left in the stores.
  void waitUntilGone(int64_t id);
};

}  // namespace tarn
