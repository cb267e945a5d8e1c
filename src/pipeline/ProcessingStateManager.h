#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <vector>

#include "pipeline/ProcessingState.h"
#include "platform/Clock.h"
#include "platform/FileManager.h"
#include "platform/UserDefaults.h"

namespace tarn {

/// The store of checkpoints. It keeps no copy: every operation reads the whole document, works on it and writes it back
/// whole, and holds the store's lock for its whole length. Storage failures are logged and never raised. A document
/// that does not decode counts as empty and is replaced by the next save; one that cannot be read is left alone. The
/// lock is the last in the order of locks: the store never calls out.
class ProcessingStateManager {
 public:
  static constexpr const char* userDefaultsKey = "com.sorrel.capacitor.downloader.processingStates";

  ProcessingStateManager(UserDefaults& defaults, FileManager& files, const Clock& clock);

  /// Inserts or replaces the record of state.downloadId.
  void saveState(const ProcessingState& state);
  std::optional<ProcessingState> loadState(int64_t id);
  void removeState(int64_t id);

  /// Records whose stage is not final, the longest untouched first.
  std::vector<ProcessingState> allPendingStates();
  std::vector<ProcessingState> allStates();

  /// Deletes all records with their temp files. The videos stay.
  void clearAllStates();

  /// Deletes the files in state.tempFiles and logs each. The record is not changed. Takes no lock.
  void cleanupTempFiles(const ProcessingState& state);

  /// Removes records, of whatever stage, that were last changed longer than `maxAge` ago, with their temp files. Their
  /// videos stay.
  void cleanupStaleStates(std::chrono::seconds maxAge);

  /// Removes records whose video is gone, with their temp files.
  void validateStates();

 private:
  /// Nothing when the document cannot be read; empty when there is none or it does not decode.
  std::optional<ProcessingStates> loadAllStatesUnsafe();
  void saveStates(const ProcessingStates& states);
  void cleanupTempFilesUnsafe(const ProcessingState& state);

  UserDefaults& defaults_;
  FileManager& files_;
  const Clock& clock_;
  std::mutex lock_;
};

}  // namespace tarn
