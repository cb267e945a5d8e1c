#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tarn {

/// A message on its way to a page; one text for all the pages that get it.
using PageText = std::shared_ptr<const std::string>;

/// The last events, for a page that comes back. Events are numbered from 1 without a gap.
class ReplayRing {
 public:
  static constexpr size_t mostBytes = 4 << 20;

  /// Keeps that many events, and no more than mostBytes.
  explicit ReplayRing(size_t capacity) : capacity_(capacity) {}

  /// The number that the next event will have.
  uint64_t nextNumber() const { return last_ + 1; }
  /// The number of the last event; 0 before the first.
  uint64_t lastNumber() const { return last_; }

  void add(PageText event);

  /// The events after number `seen`, oldest first; nothing when some of them are gone, or `seen` has not been given
  /// out yet.
  std::optional<std::vector<PageText>> since(uint64_t seen) const;

 private:
  const size_t capacity_;
  uint64_t last_ = 0;
  std::deque<PageText> events_;
  size_t bytes_ = 0;
};

}  // namespace tarn
