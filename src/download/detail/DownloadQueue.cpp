#include "download/detail/DownloadQueue.h"

#include <algorithm>

namespace tarn {

int64_t DownloadQueue::limit() {
  int64_t stored = defaults_.integer(limitKey);
  return stored == 0 ? defaultLimit : std::clamp<int64_t>(stored, 1, largestLimit);
}

int64_t DownloadQueue::setLimit(int64_t limit) {
  int64_t clamped = std::clamp<int64_t>(limit, 1, largestLimit);
  defaults_.setInteger(limitKey, clamped);
  return clamped;
}

DownloadQueue::Admission DownloadQueue::admit(const PendingDownload& download) {
  std::lock_guard guard(queueLock_);
  int64_t currentLimit = limit();
  if (std::ssize(running_) >= currentLimit) {
    pendingQueue_.push_back(download);
    return {false, counts(currentLimit)};
  }
  running_.insert(download.task->id);
  return {true, counts(currentLimit)};
}

void DownloadQueue::append(const PendingDownload& download) {
  std::lock_guard guard(queueLock_);
  pendingQueue_.push_back(download);
}

std::optional<DownloadQueue::Started> DownloadQueue::takeNext() {
  std::lock_guard guard(queueLock_);
  int64_t currentLimit = limit();
  if (pendingQueue_.empty() || std::ssize(running_) >= currentLimit) return std::nullopt;
  PendingDownload download = std::move(pendingQueue_.front());
  pendingQueue_.pop_front();
  running_.insert(download.task->id);
  return Started{std::move(download), counts(currentLimit)};
}

bool DownloadQueue::releaseSlot(int64_t id) {
  std::lock_guard guard(queueLock_);
  return running_.erase(id) > 0;
}

std::optional<PendingDownload> DownloadQueue::remove(int64_t id) {
  std::lock_guard guard(queueLock_);
  const auto found = std::ranges::find_if(pendingQueue_, [id](const auto& waiting) { return waiting.task->id == id; });
  if (found == pendingQueue_.end()) return std::nullopt;
  PendingDownload removed = std::move(*found);
  pendingQueue_.erase(found);
  return removed;
}

void DownloadQueue::clear() {
  std::lock_guard guard(queueLock_);
  pendingQueue_.clear();
  running_.clear();
}

size_t DownloadQueue::queuedCount() const {
  std::lock_guard guard(queueLock_);
  return pendingQueue_.size();
}

}  // namespace tarn
