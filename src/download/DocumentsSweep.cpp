#include "download/DocumentsSweep.h"

#include <algorithm>
#include <string_view>

#include "pipeline/RecipeFiles.h"
#include "platform/Error.h"
#include "platform/Log.h"

namespace tarn {
namespace {

bool isVideoName(std::string_view name) {
  return name.ends_with(".mp4") || name.ends_with(".mov") || name.ends_with(".m4v");
}

/// The names under which steps make their temp files: a UUID, then one of these endings.
bool isStepTempName(std::string_view name) {
  if (!isUUID(name.substr(0, uuidLength))) return false;
  const std::string_view rest = name.substr(uuidLength);
  return rest.ends_with(".m4a") || rest.ends_with(".mp4.tmp") || (rest.starts_with("_") && rest.ends_with(".mp4"));
}

}  // namespace

/// The names of all files that somebody refers to; nothing if the records cannot be read.
std::optional<std::set<Path>> DocumentsSweep::knownFiles() const {
  const auto inUse = store_.filesInUse();
  if (!inUse) return std::nullopt;
  std::set<Path> known;
  for (const Path& file : *inUse) known.insert(file.filename());
  for (const ProcessingState& state : gate_.runsInHand()) known.insert(state.fileURL.filename());
  for (const DownloadTaskPointer& task : registry_.all()) {
    if (auto location = task->snapshot().location) known.insert(location->filename());
  }
  return known;
}

/// Since the directory was listed, a transfer may have brought a file of this name. While the name is held, none can;
/// so the names are looked up again after that.
std::optional<NamesInTheMaking::Hold> DocumentsSweep::holdIfUnused(const Path& file) {
  auto hold = names_.tryHold(file);
  if (!hold) return std::nullopt;
  const auto known = knownFiles();
  return known && !known->contains(file.filename()) ? std::move(hold) : std::nullopt;
}

void DocumentsSweep::deleteFilesOf(const ProcessingState& record) {
  std::vector<Path> files = record.tempFiles;
  files.push_back(record.fileURL);
  for (const Path& file : files) {
    if (const auto hold = holdIfUnused(file)) removeIfExists(files_, file);
  }
  // A run that goes on sees at its end that it was taken away.
  const auto inHand = gate_.runsInHand();
  const auto isSame = [&](const ProcessingState& run) { return run.downloadId == record.downloadId; };
  if (std::ranges::none_of(inHand, isSame)) removeRecipeFiles(files_, record);
}

void DocumentsSweep::cleanupOrphanedFiles() {
  try {
    const Path documents = files_.documentsDirectory(false);
    const std::vector<std::string> entries = files_.contentsOfDirectory(documents);
    const auto known = knownFiles();
    if (!known) return logLine("The stored downloads cannot be read - no file is cleaned up");
    for (const std::string& name : entries) {
      if (!isVideoName(name) || known->contains(name)) continue;
      const auto hold = holdIfUnused(documents / name);
      if (!hold || !files_.fileExists(documents / name)) continue;
      files_.removeItem(documents / name);
      log("Cleaned up orphaned file: {}", name);
    }
  } catch (const Error& error) {
    log("Error cleaning up orphaned files: {}", error.description());
  }
}

void removeLeftovers(FileManager& files, ProcessingStateManager& store) {
  try {
    const Path temporary = files.temporaryDirectory();
    for (const std::string& name : files.contentsOfDirectory(temporary)) files.removeItem(temporary / name);
    const Path documents = files.documentsDirectory(true);
    const auto inUse = store.filesInUse();
    const auto pending = store.allPendingStates();
    if (!inUse || !pending) return;
    // Nobody knows which recipes the records need that were set aside.
    const bool areRecipesKnown = store.problems().empty();
    const auto isOrphan = [&](const std::string& name) {
      if (isStepTempName(name)) return !inUse->contains(documents / name);
      const auto owner = ownerOfRecipeFile(name);
      return owner && areRecipesKnown &&
             std::ranges::find(*pending, *owner, &ProcessingState::downloadId) == pending->end();
    };
    for (const std::string& name : files.contentsOfDirectory(documents)) {
      if (isOrphan(name)) files.removeItem(documents / name);
    }
  } catch (const Error& error) {
    log("Error removing leftovers: {}", error.description());
  }
}

}  // namespace tarn
