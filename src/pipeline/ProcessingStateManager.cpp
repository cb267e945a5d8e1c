#include "pipeline/ProcessingStateManager.h"

#include <algorithm>

#include "platform/Error.h"
#include "platform/Log.h"

namespace tarn {
namespace {

/// The files that a text names by their URLs, whatever else it holds.
std::set<Path> filesNamedIn(std::string_view text) {
  constexpr std::string_view scheme = "file:///";
  std::set<Path> files;
  for (size_t at = text.find(scheme); at != std::string_view::npos; at = text.find(scheme, at + 1)) {
    const size_t end = std::min(text.find_first_of("\"\\", at), text.size());
    if (auto path = pathFromFileURL(text.substr(at, end - at))) files.insert(*path);
  }
  return files;
}

}  // namespace

ProcessingStateManager::ProcessingStateManager(UserDefaults& defaults, FileManager& files, const Clock& clock)
    : defaults_(defaults), files_(files), clock_(clock), start_(clock.now()) {}

void ProcessingStateManager::saveState(const ProcessingState& state) {
  std::lock_guard guard(lock_);
  unstored_.insert_or_assign(state.downloadId, state);
  auto states = loadAllStatesUnsafe();
  if (!states) return;
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

bool ProcessingStateManager::mayHaveState(int64_t id) {
  std::lock_guard guard(lock_);
  const auto states = loadAllStatesUnsafe();
  return !states || states->contains(id);
}

void ProcessingStateManager::removeState(int64_t id) {
  std::lock_guard guard(lock_);
  unstored_.insert_or_assign(id, std::nullopt);
  auto states = loadAllStatesUnsafe();
  if (!states) return;
  saveStates(*states);
  log("Removed processing state for download {}", id);
}

std::optional<std::vector<ProcessingState>> ProcessingStateManager::allPendingStates() {
  std::lock_guard guard(lock_);
  auto states = loadAllStatesUnsafe();
  if (!states) return std::nullopt;
  if (!unstored_.empty()) saveStates(*states);
  std::vector<ProcessingState> pending;
  for (auto& [id, state] : *states) {
    if (!isFinal(state.stage)) pending.push_back(std::move(state));
  }
  std::ranges::stable_sort(pending, {}, &ProcessingState::lastUpdated);
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

std::optional<std::set<Path>> ProcessingStateManager::filesInUse(std::optional<int64_t> except) {
  auto pending = allPendingStates();
  if (!pending) return std::nullopt;
  std::set<Path> files;
  for (const ProcessingState& state : *pending) {
    if (state.downloadId == except) continue;
    files.insert(state.fileURL);
    files.insert(state.tempFiles.begin(), state.tempFiles.end());
  }
  try {
    std::lock_guard guard(lock_);
    for (const std::string& text : textsSetAside()) files.merge(filesNamedIn(text));
  } catch (const PosixError& error) {
    log("Failed to read what is set aside: {}", error.description());
    return std::nullopt;
  }
  return files;
}

std::vector<std::string> ProcessingStateManager::problems() {
  std::vector<std::string> problems;
  std::lock_guard guard(lock_);
  try {
    defaults_.data(userDefaultsKey);
    loadAllStatesUnsafe();
    if (const size_t count = textsSetAside().size(); count > 0) {
      problems.push_back(fmt::format(
          "{} of the stored downloads cannot be understood and {} set aside; what they name in Documents is kept",
          count, count == 1 ? "is" : "are"));
    }
  } catch (const PosixError& error) {
    problems.push_back("The stored downloads cannot be read, so none goes on and nothing is cleared away: " +
                       error.description());
  }
  return problems;
}

void ProcessingStateManager::clearAllStates() {
  for (const ProcessingState& state : takeAllStates()) cleanupTempFilesUnsafe(state);
}

std::vector<ProcessingState> ProcessingStateManager::takeAllStates() {
  std::lock_guard guard(lock_);
  std::vector<ProcessingState> all;
  auto states = loadAllStatesUnsafe().value_or(ProcessingStates());
  for (auto& [id, state] : states) {
    unstored_.insert_or_assign(id, std::nullopt);
    all.push_back(std::move(state));
  }
  saveStates({});
  logLine("Cleared all processing states");
  return all;
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

std::vector<int64_t> ProcessingStateManager::cleanupStaleStates(std::chrono::seconds maxAge,
                                                                const std::set<int64_t>& inHand) {
  std::lock_guard guard(lock_);
  auto states = loadAllStatesUnsafe();
  if (!states) return {};
  std::vector<int64_t> pending;
  const Date now = clock_.now();
  size_t count = std::erase_if(*states, [&](const auto& entry) {
    const ProcessingState& state = entry.second;
    if (inHand.contains(entry.first)) return false;
    const auto age = now - (isFinal(state.stage) ? state.lastUpdated : std::max(state.lastUpdated, start_));
    if (age <= maxAge) return false;
    cleanupTempFilesUnsafe(state);
    if (!isFinal(state.stage)) pending.push_back(state.downloadId);
    unstored_.insert_or_assign(state.downloadId, std::nullopt);
    log("Removed stale processing state for download {} (age: {}h)", state.downloadId,
        std::chrono::duration_cast<std::chrono::hours>(age).count());
    return true;
  });
  if (count == 0) return {};
  saveStates(*states);
  log("Cleaned up {} stale processing state(s)", count);
  return pending;
}

std::vector<int64_t> ProcessingStateManager::validateStates(const std::set<int64_t>& inHand) {
  std::lock_guard guard(lock_);
  auto states = loadAllStatesUnsafe();
  if (!states) return {};
  std::vector<int64_t> pending;
  size_t count = std::erase_if(*states, [&](const auto& entry) {
    const auto& [id, state] = entry;
    if (inHand.contains(id) || files_.fileExists(state.fileURL)) return false;
    log("Processing state {} references missing file: {} - removing state", id, state.fileURL.string());
    cleanupTempFilesUnsafe(state);
    if (!isFinal(state.stage)) pending.push_back(id);
    unstored_.insert_or_assign(id, std::nullopt);
    return true;
  });
  if (count == 0) return {};
  for (auto& [id, state] : *states) {
    std::erase_if(state.tempFiles, [&](const Path& file) { return !files_.fileExists(file); });
  }
  saveStates(*states);
  log("Removed {} processing state(s) with missing files", count);
  return pending;
}

std::optional<ProcessingStates> ProcessingStateManager::loadAllStatesUnsafe() {
  try {
    const auto document = defaults_.data(userDefaultsKey);
    DecodedStates decoded = document ? decodeProcessingStates(*document) : DecodedStates();
    if (!setAside(decoded.rest)) return std::nullopt;
    for (const auto& [id, state] : unstored_) {
      decoded.states.erase(id);
      if (state) decoded.states.emplace(id, *state);
    }
    return std::move(decoded.states);
  } catch (const PosixError& error) {
    // The document may be undamaged: it must not be overwritten only because it cannot be read now.
    log("Failed to read processing states: {}", error.description());
    return std::nullopt;
  }
}

/// Sets aside what is not set aside yet. Returns false if that fails.
bool ProcessingStateManager::setAside(const std::vector<DecodedStates::Undecodable>& rest) {
  if (rest.empty()) return true;
  std::vector<std::string> texts = textsSetAside();
  const size_t before = texts.size();
  for (const auto& [text, what, reason] : rest) {
    if (std::ranges::find(texts, text) != texts.end()) continue;
    log("{} is set aside: {}", what, reason);
    texts.push_back(text);
  }
  if (texts.size() == before) return true;
  try {
    defaults_.setData(setAsideKey, encodeTexts(texts));
    return true;
  } catch (const PosixError& error) {
    log("Failed to set processing states aside: {}", error.description());
    return false;
  }
}

/// Throws PosixError.
std::vector<std::string> ProcessingStateManager::textsSetAside() {
  const auto document = defaults_.data(setAsideKey);
  return document ? decodeTexts(*document) : std::vector<std::string>();
}

void ProcessingStateManager::saveStates(const ProcessingStates& states) {
  try {
    defaults_.setData(userDefaultsKey, encodeProcessingStates(states));
    unstored_.clear();
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
