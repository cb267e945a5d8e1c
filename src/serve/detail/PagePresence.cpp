#include "serve/detail/PagePresence.h"

#include <algorithm>

namespace tarn {

PagePresence::PagePresence(Time start) {
  leaving_.emplace("", start + grace);
}

void PagePresence::show(const std::string& page, bool isVisible) {
  leaving_.erase(page);
  leaving_.erase("");
  if (isVisible) {
    visible_.insert(page);
  } else {
    visible_.erase(page);
  }
}

void PagePresence::leave(const std::string& page, Time now) {
  if (visible_.erase(page) > 0) leaving_.insert_or_assign(page, now + grace);
}

bool PagePresence::isActive(Time now) const {
  return !visible_.empty() || std::ranges::any_of(leaving_, [now](const auto& entry) { return entry.second > now; });
}

std::optional<PagePresence::Time> PagePresence::nextChange(Time now) {
  std::erase_if(leaving_, [now](const auto& entry) { return entry.second <= now; });
  if (!visible_.empty() || leaving_.empty()) return std::nullopt;
  return std::ranges::max_element(leaving_, {}, &decltype(leaving_)::value_type::second)->second;
}

}  // namespace tarn
