#include "pipeline/ProcessingStateManager.h"

#include <algorithm>

#include "platform/Error.h"
#include "platform/Log.h"

namespace tarn {

ProcessingStateManager::ProcessingStateManager(UserDefaults& defaults, FileManager& files, const Clock& clock)
    : defaults_(defaults), files_(files), clock_(clock) {}

void ProcessingStateManager::saveState(const ProcessingState& state) {
  std::lock_guard guard(lock_);
  auto states = loadAllStatesUnsafe();
  if (!states) return;
  states->insert_or_assign(state.downloadId, state);
  saveStates(*states);
  log("Saved processing state for download {}: {}", state.downloadId, description(state.stage));
}

std::optional<ProcessingState> ProcessingStateManager::loadState(int64_t id) {
  std::lock_guard guard(lock_);
  auto states = loadAllStatesUnsafe();
  if (!states) return std::nullopt;
  auto found = states->find(id);
  if (found == states->end()) return std::nullopt;
  return found->second;
}

void ProcessingStateManager::removeState(int64_t id) {
  std::lock_guard guard(lock_);
  auto states = loadAllStatesUnsafe();
  if (!states) return;
  states->erase(id);
  saveStates(*states);
  log("Removed processing state for download {}", id);
}

std::vector<ProcessingState> ProcessingStateManager::allPendingStates() {
  std::vector<ProcessingState> pending = allStates();
  std::erase_if(pending, [](const ProcessingState& state) { return isFinal(state.stage); });
  std::ranges::sort(pending, {}, &ProcessingState::lastUpdated);
  return pending;
}

std::vector<ProcessingState> ProcessingStateManager::allStates() {
  std::lock_guard guard(lock_);
  std::vector<ProcessingState> all;
  if (auto states = loadAllStatesUnsafe()) {
    for (auto& [id, state] : *states) all.push_back(std::move(state));
  }
  return all;
}

void ProcessingStateManager::clearAllStates() {
  std::lock_guard guard(lock_);
  if (auto states = loadAllStatesUnsafe()) {
    for (const auto& [id, state] : *states) cleanupTempFilesUnsafe(state);
  }
  saveStates({});
  logLine("Cleared all processing states");
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
  auto states = loadAllStatesUnsafe();
  if (!states) return;
  const Date now = clock_.now();
  size_t count = std::erase_if(*states, [&](const auto& entry) {
    const ProcessingState& state = entry.second;
    auto age = now - state.lastUpdated;
    if (age <= maxAge) return false;
    cleanupTempFilesUnsafe(state);
    log("Removed stale processing state for download {} (age: {}h)", state.downloadId,
        std::chrono::duration_cast<std::chrono::hours>(age).count());
    return true;
  });
  if (count == 0) return;
  saveStates(*states);
  log("Cleaned up {} stale processing state(s)", count);
}

void ProcessingStateManager::validateStates() {
  std::lock_guard guard(lock_);
  auto states = loadAllStatesUnsafe();
  if (!states) return;
  size_t count = std::erase_if(*states, [&](const auto& entry) {
    const auto& [id, state] = entry;
    if (files_.fileExists(state.fileURL)) return false;
    log("Processing state {} references missing file: {} - removing state", id, state.fileURL.string());
    cleanupTempFilesUnsafe(state);
    return true;
  });
  if (count == 0) return;
  for (auto& [id, state] : *states) {
    std::erase_if(state.tempFiles, [&](const Path& file) { return !files_.fileExists(file); });
  }
  saveStates(*states);
  log("Removed {} processing state(s) with missing files", count);
}

std::optional<ProcessingStates> ProcessingStateManager::loadAllStatesUnsafe() {
  try {
    auto document = defaults_.data(userDefaultsKey);
    if (!document) return ProcessingStates{};
    return decodeProcessingStates(*document);
  } catch (const PosixError& error) {
    // The document may be whole: what cannot be read now must not be written over.
    log("Failed to read processing states: {}", error.description());
    return std::nullopt;
  } catch (const Error& error) {
    log("Failed to decode processing states: {}", error.description());
    return ProcessingStates{};
  }
}

void ProcessingStateManager::saveStates(const ProcessingStates& states) {
  try {
    defaults_.setData(userDefaultsKey, encodeProcessingStates(states));
  } catch (const PosixError& error) {
    log("Failed to store processing states: {}", error.description());
  } catch (const std::exception& error) {
    log("Failed to encode processing states: {}", error.what());
  }
}

void ProcessingStateManager::cleanupTempFilesUnsafe(const ProcessingState& state) {
  for (const Path& file : state.tempFiles) removeIfExists(files_, file);
}

}  // namespace tarn
