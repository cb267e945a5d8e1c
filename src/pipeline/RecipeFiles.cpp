#include "pipeline/RecipeFiles.h"

#include <fmt/format.h>

#include <charconv>

namespace tarn {
namespace {

constexpr std::string_view recipeEnding = ".recipe";
constexpr std::string_view sideEnding = ".side";

}  // namespace

RecipeFiles recipeFilesOf(const ProcessingState& record) {
  const Path directory = record.fileURL.parent_path();
  return {.recipe = directory / fmt::format("{}{}", record.downloadId, recipeEnding),
          .side = directory / fmt::format("{}{}", record.downloadId, sideEnding)};
}

void removeRecipeFiles(FileManager& files, const ProcessingState& record) noexcept {
  const RecipeFiles left = recipeFilesOf(record);
  for (const Path& file : {left.recipe, left.side}) {
    if (files.fileExists(file)) removeIfExists(files, file);
  }
}

std::optional<int64_t> ownerOfRecipeFile(std::string_view name) {
  if (!name.ends_with(recipeEnding) && !name.ends_with(sideEnding)) return std::nullopt;
  const std::string_view number = name.substr(0, name.rfind('.'));
  int64_t id = 0;
  const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), id);
  if (error != std::errc() || end != number.data() + number.size()) return std::nullopt;
  return id;
}

}  // namespace tarn
