#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace tarn {

/// Reads along in the log, and remembers of each download what no event and no answer tells: the words of its failure,
/// and the asset that it was saved as. Thread-safe.
class RunJournal {
 public:
  void read(std::string_view line);

  std::optional<std::string> failure(int64_t id) const;
  std::optional<std::string> assetId(int64_t id) const;

 private:
  mutable std::mutex mutex_;
  std::string lastAssetId_;  ///< of the run that is saving; runs do not overlap
  std::string lastSavingFailure_;
  std::map<int64_t, std::string> failures_;
  std::map<int64_t, std::string> assetIds_;
};

}  // namespace tarn
