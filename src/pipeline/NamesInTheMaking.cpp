#include "pipeline/NamesInTheMaking.h"

namespace tarn {

NamesInTheMaking::Hold::Hold(NamesInTheMaking& names, Path path) : names_(&names), path_(std::move(path)) {}

NamesInTheMaking::Hold::Hold(Hold&& other) noexcept : names_(other.names_), path_(std::move(other.path_)) {
  other.names_ = nullptr;
}

NamesInTheMaking::Hold::~Hold() {
  if (!names_) return;
  {
    std::lock_guard guard(names_->mutex_);
    names_->paths_.erase(path_);
  }
  names_->released_.notify_all();
}

NamesInTheMaking::Hold NamesInTheMaking::hold(const Path& path) {
  std::unique_lock guard(mutex_);
  released_.wait(guard, [&] { return paths_.insert(path).second; });
  return {*this, path};
}

std::optional<NamesInTheMaking::Hold> NamesInTheMaking::tryHold(const Path& path) {
  std::lock_guard guard(mutex_);
  if (!paths_.insert(path).second) return std::nullopt;
  return Hold(*this, path);
}

}  // namespace tarn
