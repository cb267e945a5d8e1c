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

}  // namespace tarn
