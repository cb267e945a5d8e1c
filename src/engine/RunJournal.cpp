#include "engine/RunJournal.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace tarn {
namespace {

/// The rest of a line that begins with `prefix`.
std::optional<std::string_view> after(std::string_view line, std::string_view prefix) {
  if (!line.starts_with(prefix)) return std::nullopt;
  return line.substr(prefix.size());
}

/// The id at the start of a text, and what follows it and one of the separators.
std::optional<std::pair<int64_t, std::string_view>> splitId(std::string_view text) {
  int64_t id = 0;
  auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), id);
  if (failure != std::errc()) return std::nullopt;
  std::string_view rest = text.substr(static_cast<size_t>(end - text.data()));
  rest.remove_prefix(std::min(rest.find_first_not_of(": "), rest.size()));
  return std::pair(id, rest);
}

constexpr std::string_view failurePrefixes[] = {
    "Download completed with error ",
    "Processing failed for download ",
    "Download could not be started ",
    "Download could not enter the pipeline ",
};

}  // namespace

void RunJournal::read(std::string_view line) {
  std::lock_guard guard(mutex_);
  if (auto asset = after(line, "Video saved successfully, asset ID: ")) lastAssetId_ = *asset;
  if (auto words = after(line, "ERROR saving to Photos: ")) lastSavingFailure_ = *words;
  if (line.starts_with("ERROR: No album name for download ")) lastSavingFailure_ = "No album name specified";
  if (auto rest = after(line, "Processing completed for download ")) {
    if (auto split = splitId(*rest)) {
      std::string asset = std::exchange(lastAssetId_, {});
      std::string words = std::exchange(lastSavingFailure_, {});
      if (!asset.empty()) assetIds_.insert_or_assign(split->first, asset);
      if (!words.empty()) failures_.insert_or_assign(split->first, words);
    }
  }
  for (std::string_view prefix : failurePrefixes) {
    auto rest = after(line, prefix);
    if (!rest) continue;
    if (auto split = splitId(*rest)) failures_.insert_or_assign(split->first, std::string(split->second));
  }
}

std::optional<std::string> RunJournal::failure(int64_t id) const {
  std::lock_guard guard(mutex_);
  auto found = failures_.find(id);
  if (found == failures_.end()) return std::nullopt;
  return found->second;
}

std::optional<std::string> RunJournal::assetId(int64_t id) const {
  std::lock_guard guard(mutex_);
  auto found = assetIds_.find(id);
  if (found == assetIds_.end()) return std::nullopt;
  return found->second;
}

}  // namespace tarn
