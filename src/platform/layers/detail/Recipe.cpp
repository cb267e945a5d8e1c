#include "platform/layers/detail/Recipe.h"

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>
#include <utility>

namespace tarn {
namespace {

using nlohmann::json;

constexpr uint64_t largestFile = std::numeric_limits<int64_t>::max();

std::optional<uint64_t> number(const json& value) {
  if (!value.is_number_unsigned()) return std::nullopt;
  return value.get<uint64_t>();
}

std::optional<uint64_t> numberAt(const json& object, const char* key) {
  const auto found = object.find(key);
  return found == object.end() ? std::nullopt : number(*found);
}

std::optional<Recipe::Part> decodePart(const json& value, uint64_t baseSize) {
  if (!value.is_array() || value.size() != 3) return std::nullopt;
  const auto source = number(value[0]);
  const auto offset = number(value[1]);
  const auto size = number(value[2]);
  if (!source || !offset || !size || *source > 2 || *size == 0) return std::nullopt;
  const Recipe::Part part{static_cast<Recipe::Part::Source>(*source), *offset, *size};
  const uint64_t end = part.source == Recipe::Part::Source::base ? baseSize : largestFile;
  if (part.offset > end || part.size > end - part.offset) return std::nullopt;
  return part;
}

std::optional<std::vector<Recipe::Part>> decodeParts(const json& value, uint64_t baseSize) {
  if (!value.is_array()) return std::nullopt;
  std::vector<Recipe::Part> parts;
  uint64_t size = 0;
  for (const json& row : value) {
    const auto part = decodePart(row, baseSize);
    if (!part || part->size > largestFile - size) return std::nullopt;
    size += part->size;
    parts.push_back(*part);
  }
  return parts;
}

}  // namespace

uint64_t Recipe::sideSize() const {
  uint64_t size = 0;
  for (const auto& [path, parts] : files) {
    for (const Part& part : parts) {
      if (part.source == Part::Source::side) size = std::max(size, part.offset + part.size);
    }
  }
  return size;
}

Bytes encodeRecipe(const Recipe& recipe) {
  json files = json::object();
  for (const auto& [path, parts] : recipe.files) {
    json& rows = files[fileURLText(path)] = json::array();
    for (const Recipe::Part& part : parts) rows.push_back({static_cast<uint64_t>(part.source), part.offset, part.size});
  }
  const std::string text = json{{"inode", recipe.inode}, {"size", recipe.baseSize}, {"files", files}}.dump();
  return {text.begin(), text.end()};
}

std::optional<Recipe> decodeRecipe(ByteView document) {
  const json value = json::parse(document.begin(), document.end(), nullptr, false);
  if (!value.is_object()) return std::nullopt;
  const auto inode = numberAt(value, "inode");
  const auto size = numberAt(value, "size");
  const auto files = value.find("files");
  if (!inode || !size || files == value.end() || !files->is_object()) return std::nullopt;
  Recipe recipe{.inode = *inode, .baseSize = *size, .files = {}};
  for (const auto& [url, rows] : files->items()) {
    const auto path = pathFromFileURL(url);
    auto parts = decodeParts(rows, *size);
    if (!path || !parts) return std::nullopt;
    recipe.files[*path] = std::move(*parts);
  }
  return recipe;
}

}  // namespace tarn
