#include "pipeline/ProcessingStateManager.h"

#include <algorithm>

#include "platform/Error.h"
#include "platform/Log.h"

namespace tarn {

ProcessingStateManager::ProcessingStateManager(UserDefaults& defaults, FileManager& files, const Clock& clock)
    : defaults_(defaults), files_(files), clock_(clock) {}

void ProcessingStateManager::saveState(const ProcessingState& state) {
  std::lock_guard guard(lock_);
  ProcessingStates states = loadAllStatesUnsafe();
  states.insert_or_assign(state.downloadId, state);
  saveStates(states);
  log("Saved processing state for download {}: {}", state.downloadId, description(state.stage));
}

std::optional<ProcessingState> ProcessingStateManager::loadState(int64_t id) {
  std::lock_guard guard(lock_);
  ProcessingStates states = loadAllStatesUnsafe();
  auto found = states.find(id);
  if (found == states.end()) return std::nullopt;
  return found->second;
}

void ProcessingStateManager::removeState(int64_t id) {
  std::lock_guard guard(lock_);
  ProcessingStates states = loadAllStatesUnsafe();
  states.erase(id);
  saveStates(states);
  log("Removed processing state for download {}", id);
}

std::vector<ProcessingState> ProcessingStateManager::allPendingStates() {
  std::lock_guard guard(lock_);
  std::vector<ProcessingState> pending;
  for (const auto& [id, state] : loadAllStatesUnsafe()) {
    if (!isFinal(state.stage)) pending.push_back(state);
  }
  std::ranges::sort(pending, {}, &ProcessingState::lastUpdated);
  return pending;
}

void ProcessingStateManager::clearAllStates() {
  std::lock_guard guard(lock_);
  for (const auto& [id, state] : loadAllStatesUnsafe()) cleanupTempFilesUnsafe(state);
  saveStates({});
  log("Cleared all processing states");
}

void ProcessingStateManager::cleanupTempFiles(const ProcessingState& state) {
  for (const Path& file : state.tempFiles) {
    if (!files_.fileExists(file)) continue;
    try {
      files_.removeItem(file);
      log("Cleaned up temp file: {}", file.filename().string());
    } catch (const Error& error) {
      log("Failed to clean up temp file {}: {}", file.filename().string(), error.description());
    }
  }
}

void ProcessingStateManager::cleanupStaleStates(std::chrono::seconds maxAge) {
  std::lock_guard guard(lock_);
  ProcessingStates states = loadAllStatesUnsafe();
  Date now = clock_.now();
  size_t count = std::erase_if(states, [&](const auto& entry) {
    const ProcessingState& state = entry.second;
    auto age = now - state.lastUpdated;
    if (age <= maxAge) return false;
    cleanupTempFilesUnsafe(state);
    log("Removed stale processing state for download {} (age: {}h)", state.downloadId,
        std::chrono::duration_cast<std::chrono::hours>(age).count());
    return true;
  });
  if (count == 0) return;
  saveStates(states);
  log("Cleaned up {} stale processing state(s)", count);
}

void ProcessingStateManager::validateStates() {
  std::lock_guard guard(lock_);
  ProcessingStates states = loadAllStatesUnsafe();
  size_t count = std::erase_if(states, [&](auto& entry) {
    auto& [id, state] = entry;
    if (files_.fileExists(state.fileURL)) {
      std::erase_if(state.tempFiles, [&](const Path& file) { return !files_.fileExists(file); });
      return false;
    }
    log("Processing state {} references missing file: {} - removing state", id, state.fileURL.string());
    cleanupTempFilesUnsafe(state);
    return true;
  });
  if (count == 0) return;
  saveStates(states);
  log("Removed {} processing state(s) with missing files", count);
}

ProcessingStates ProcessingStateManager::loadAllStatesUnsafe() {
  auto document = defaults_.data(userDefaultsKey);
  if (!document) return {};
  try {
    return decodeProcessingStates(*document);
  } catch (const Error& error) {
    log("Failed to decode processing states: {}", error.description());
    return {};
  }
}

void ProcessingStateManager::saveStates(const ProcessingStates& states) {
  try {
    defaults_.setData(userDefaultsKey, encodeProcessingStates(states));
  } catch (const std::exception& error) {
    log("Failed to encode processing states: {}", error.what());
  }
}

void ProcessingStateManager::cleanupTempFilesUnsafe(const ProcessingState& state) {
  for (const Path& file : state.tempFiles) removeIfExists(files_, file);
}

}  // namespace tarn
