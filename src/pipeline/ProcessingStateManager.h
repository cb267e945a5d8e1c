#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "pipeline/ProcessingState.h"
#include "platform/Clock.h"
#include "platform/FileManager.h"
#include "platform/UserDefaults.h"

namespace tarn {

/// The store of checkpoints. Every operation reads the whole document, works on it and writes it back whole, and holds
/// the store's lock for its whole length. In memory the store keeps only changes that could not be stored: storage
/// failures are logged and never raised, and the next write, or the next look at what is pending, stores these changes
/// too. A document that cannot be read is left alone. A record that does not decode is set aside under a key of its own
/// before a save drops it, and stays there with its files; a document that is not a list of records as well. Under its
/// lock the store uses the stored values and files, and calls nobody else. Thread-safe.
class ProcessingStateManager {
 public:
  static constexpr const char* userDefaultsKey = "com.sorrel.capacitor.downloader.processingStates";
  static constexpr const char* setAsideKey = "com.sorrel.capacitor.downloader.processingStates.setAside";

  ProcessingStateManager(UserDefaults& defaults, FileManager& files, const Clock& clock);

  /// Inserts or replaces the record of state.downloadId.
  void saveState(const ProcessingState& state);
  std::optional<ProcessingState> loadState(int64_t id);
  /// False if there is no record of this id; true if there is one, or if the records cannot be read.
  bool mayHaveState(int64_t id);
  void removeState(int64_t id);

  /// Records whose stage is not final, the longest unchanged first; nothing if they cannot be read.
  std::optional<std::vector<ProcessingState>> allPendingStates();
  std::vector<ProcessingState> allStates();

  /// The videos and temp files of all pending records but that of `except`, and the files that are named in what is set
  /// aside: nobody else may touch them. Nothing if the records cannot be read: then nobody may touch any file.
  std::optional<std::set<Path>> filesInUse(std::optional<int64_t> except = std::nullopt);

  /// What is wrong with the store, in words for people; empty if nothing is.
  std::vector<std::string> problems();

  /// Deletes all records with their temp files. The videos stay.
  void clearAllStates();
  /// Removes all records and returns them. Their files stay.
  std::vector<ProcessingState> takeAllStates();

  /// Deletes the files in state.tempFiles and logs each. The record is not changed. Takes no lock.
  void cleanupTempFiles(const ProcessingState& state);

  /// Removes records, of whatever stage, that were last changed longer than `maxAge` ago, with their temp files. Their
  /// videos stay. A pending record's age counts from the start of this process at the earliest, since nobody could take
  /// it up before; those of `inHand` stay. Returns the ids of the pending ones.
  std::vector<int64_t> cleanupStaleStates(std::chrono::seconds maxAge, const std::set<int64_t>& inHand = {});

  /// Removes records whose video is gone, with their temp files; those of `inHand` stay. Returns the ids of the pending
  /// ones.
  std::vector<int64_t> validateStates(const std::set<int64_t>& inHand = {});

 private:
  // The callers of these hold the lock.
  /// Returns nothing if the document cannot be read, or if what does not decode cannot be set aside.
  std::optional<ProcessingStates> loadAllStatesUnsafe();
  bool setAside(const std::vector<DecodedStates::Undecodable>& rest);
  std::vector<std::string> textsSetAside();
  void saveStates(const ProcessingStates& states);
  void cleanupTempFilesUnsafe(const ProcessingState& state);

  UserDefaults& defaults_;
  FileManager& files_;
  const Clock& clock_;
  const Date start_;
  std::mutex lock_;
  /// Changes that could not be stored yet (a removal has no record). They count as if they were stored.
  std::map<int64_t, std::optional<ProcessingState>> unstored_;
};

}  // namespace tarn
