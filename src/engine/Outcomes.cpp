#include "engine/Outcomes.h"

#include <iterator>

namespace tarn {

void Outcomes::keep(const RunOutcome& outcome) {
  std::lock_guard guard(mutex_);
  if (outcome.kind == RunOutcome::Kind::cancelled && outcomes_.contains(outcome.id)) return;
  const auto kept = outcomes_.insert_or_assign(outcome.id, outcome).first;
  // A client may have asked for a low id.
  if (outcomes_.size() > most) outcomes_.erase(kept == outcomes_.begin() ? std::next(kept) : outcomes_.begin());
}

std::optional<RunOutcome> Outcomes::of(int64_t id) const {
  std::lock_guard guard(mutex_);
  const auto found = outcomes_.find(id);
  if (found == outcomes_.end()) return std::nullopt;
  return found->second;
}

}  // namespace tarn
