#include "serve/detail/ReplayRing.h"

#include <utility>

namespace tarn {

void ReplayRing::add(PageText event) {
  ++last_;
  bytes_ += event->size();
  events_.push_back(std::move(event));
  while (events_.size() > capacity_ || bytes_ > mostBytes) {
    bytes_ -= events_.front()->size();
    events_.pop_front();
  }
}

std::optional<std::vector<PageText>> ReplayRing::since(uint64_t seen) const {
  if (seen > last_ || last_ - seen > events_.size()) return std::nullopt;
  return std::vector<PageText>(events_.end() - static_cast<std::ptrdiff_t>(last_ - seen), events_.end());
}

}  // namespace tarn
