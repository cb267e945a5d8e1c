#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "pipeline/ProcessingState.h"

namespace tarn {

/// Where a run keeps what its file will become, until that is made: the recipe, and the file with its new bytes. Both
/// are beside the run's file and named by its download; no sweep takes them for videos.
struct RecipeFiles {
  Path recipe;
  Path side;
};

RecipeFiles recipeFilesOf(const ProcessingState& record);

/// Deletes those that are there. Never throws.
void removeRecipeFiles(FileManager& files, const ProcessingState& record) noexcept;

/// The download that has a file of this name; nothing if it is no such name.
std::optional<int64_t> ownerOfRecipeFile(std::string_view name);

}  // namespace tarn
