#pragma once

#include <tarn/engine.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/Capacitor.h"
#include "platform/Clock.h"
#include "platform/FileManager.h"

namespace tarn {

/// A client of an engine, wherever that runs: calls the methods of its plug-ins, as a page does, and takes its events
/// in their order. Belongs to one thread.
class EngineClient {
 public:
  using Answer = CAPPluginCall::Answer;
  using Outcome = Engine::Outcome;
  using StoredWork = Engine::StoredWork;
  using HistoryEntry = Engine::HistoryEntry;

  struct Event {
    std::string name;
    JSObject data;
  };

  virtual ~EngineClient() = default;

  /// Calls a method and waits for its answer. Throws EngineLost, EngineInterrupted.
  virtual Answer call(const std::string& plugin, const std::string& method, JSObject options) = 0;

  /// Waits for the next event; nothing when none comes in time, or after an interrupt. Throws EngineLost.
  virtual std::optional<Event> nextEvent(std::optional<std::chrono::milliseconds> timeout) = 0;

  /// Ends all waits, now and later. From any thread.
  virtual void interrupt() = 0;
  virtual bool isInterrupted() const = 0;

  /// A method of the bridge.
  Answer call(const std::string& method, JSObject options = {});

  /// The command saveVideo; its options may choose the download's id, which is returned. Throws EngineRefused.
  int64_t saveVideo(JSObject options);
  /// The downloads that the engine has, by their ids.
  JSObject downloads();
  /// Throws EngineRefused.
  int64_t changeDownload(int64_t id, const std::string& action);
  std::map<int64_t, TransferState> transfers();
  Outcome outcome(int64_t id);
  /// Where an asset stands in an album, or in any.
  std::optional<Path> assetPath(const std::string& assetId, const std::optional<std::string>& album = std::nullopt);
  /// Where the newest video stands that an album got under this name since then.
  std::optional<Path> savedSince(Date start, const std::string& album, const std::string& filename);
  StoredWork storedWork();
  /// This and what follows throw EngineRefused where Engine says so.
  std::vector<LibraryAlbum> library(const std::optional<std::string>& album);
  std::vector<LibraryAsset> removedAssets();
  std::optional<LibraryAsset> changeAsset(const AssetChange& change);
  std::optional<Path> poster(const std::string& assetId);
  std::vector<HistoryEntry> history(const std::optional<int64_t>& limit);
  void clearHistory(const std::optional<int64_t>& id);
  /// Has the next stored run taken up, if none is active, and what has ended told again.
  void takeUpStoredRun();

  /// Waits, a moment at most, until the engine has let go of a download that has told its end: then nothing of it is
  /// left in the stores.
  void waitUntilGone(int64_t id);
};

}  // namespace tarn
