#pragma once

#include <optional>
#include <set>

#include "pipeline/CancellationToken.h"
#include "pipeline/RecipeFiles.h"
#include "platform/layers/LayeredFiles.h"

namespace tarn {

/// The files that a run works on: layers over the run's file, with a recipe that survives the process; or the plain
/// files, and then nothing here does anything.
class RunLayers {
 public:
  RunLayers(FileManager& base, const ProcessingState& record, bool isLayered) : base_(base), record_(record) {
    if (isLayered) layers_.emplace(base, recipeFilesOf(record).side);
  }

  FileManager& files() { return layers_ ? static_cast<FileManager&>(*layers_) : base_; }

  /// Takes up what an earlier process has done to the file. False if that is lost. Throws PosixError.
  bool takeUp() {
    using TakenUp = LayeredFiles::TakenUp;
    return !layers_ || layers_->keepRecipe(record_.fileURL, recipeFilesOf(record_).recipe) != TakenUp::damaged;
  }

  /// Makes the finished file a real one, if the steps changed it. Throws PosixError and CancellationError.
  void finish(const CancellationToken& token) {
    if (layers_) layers_->finish([&token] { token.throwIfCancelled(); });
  }

  /// Also what an earlier process has left, if this run has not come to take it up.
  void discard() noexcept {
    if (!layers_) return;
    layers_->discard();
    removeRecipeFiles(base_, record_);
  }

  /// True if what the steps have done is not in the base's files.
  bool areChanged() { return layers_ && layers_->isChanged(record_.fileURL); }

  /// Files that the steps have made and that are there still.
  std::set<Path> newNames() { return layers_ ? layers_->newNames() : std::set<Path>(); }

 private:
  FileManager& base_;
  const ProcessingState record_;
  std::optional<LayeredFiles> layers_;
};

}  // namespace tarn
