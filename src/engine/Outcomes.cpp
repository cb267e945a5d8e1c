#include "engine/Outcomes.h"

namespace tarn {

void Outcomes::keep(const RunOutcome& outcome) {
  std::lock_guard guard(mutex_);
  outcomes_.insert_or_assign(outcome.id, outcome);
}

std::optional<RunOutcome> Outcomes::of(int64_t id) const {
  std::lock_guard guard(mutex_);
  const auto found = outcomes_.find(id);
  if (found == outcomes_.end()) return std::nullopt;
  return found->second;
}

std::optional<std::string> Outcomes::assetId(int64_t id) const {
  const auto outcome = of(id);
  return outcome ? outcome->assetId : std::nullopt;
}

std::optional<std::string> Outcomes::failure(int64_t id) const {
  const auto outcome = of(id);
  if (!outcome || outcome->kind != RunOutcome::Kind::failed) return std::nullopt;
  return outcome->words;
}

}  // namespace tarn
