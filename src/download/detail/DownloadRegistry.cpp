#include "download/detail/DownloadRegistry.h"

namespace tarn {

void DownloadRegistry::insert(const DownloadTaskPointer& task) {
  std::lock_guard guard(mutex_);
  downloads_.insert_or_assign(task->id, task);
}

DownloadTaskPointer DownloadRegistry::remove(int64_t id) {
  std::lock_guard guard(mutex_);
  delegates_.erase(id);
  auto node = downloads_.extract(id);
  return node ? node.mapped() : nullptr;
}

DownloadTaskPointer DownloadRegistry::find(int64_t id) const {
  std::lock_guard guard(mutex_);
  auto found = downloads_.find(id);
  return found == downloads_.end() ? nullptr : found->second;
}

std::vector<DownloadTaskPointer> DownloadRegistry::all() const {
  std::lock_guard guard(mutex_);
  std::vector<DownloadTaskPointer> tasks;
  for (const auto& [id, task] : downloads_) tasks.push_back(task);
  return tasks;
}

void DownloadRegistry::setDelegate(int64_t id, const std::weak_ptr<DownloadManagerDelegate>& delegate) {
  std::lock_guard guard(mutex_);
  if (downloads_.contains(id)) delegates_.insert_or_assign(id, delegate);
}

void DownloadRegistry::removeDelegate(int64_t id) {
  std::lock_guard guard(mutex_);
  delegates_.erase(id);
}

DownloadRegistry::DelegatePointer DownloadRegistry::delegate(int64_t id) const {
  std::lock_guard guard(mutex_);
  auto found = delegates_.find(id);
  return found == delegates_.end() ? nullptr : found->second.lock();
}

void DownloadRegistry::mapTransfer(int64_t taskIdentifier, int64_t id) {
  std::lock_guard guard(mutex_);
  taskIdToDownloadId_.insert_or_assign(taskIdentifier, id);
}

void DownloadRegistry::forgetTransfer(int64_t taskIdentifier) {
  std::lock_guard guard(mutex_);
  taskIdToDownloadId_.erase(taskIdentifier);
}

DownloadRegistry::Match DownloadRegistry::match(int64_t taskIdentifier, const std::string& url,
                                                std::optional<int64_t> notedId) {
  std::lock_guard guard(mutex_);
  if (auto mapped = taskIdToDownloadId_.find(taskIdentifier); mapped != taskIdToDownloadId_.end()) {
    auto found = downloads_.find(mapped->second);
    return {found == downloads_.end() ? nullptr : found->second, false};
  }
  auto fits = [&](const DownloadTaskPointer& task) {
    if (task->request.url != url) return false;
    auto fields = task->snapshot();
    return !fields.downloadTask && fields.status != DownloadStatus::queued;
  };
  DownloadTaskPointer match;
  for (const auto& [id, task] : downloads_) {
    if (!fits(task)) continue;
    if (!match || id == notedId) match = task;
  }
  if (match) taskIdToDownloadId_.emplace(taskIdentifier, match->id);
  return {match, true};
}

void DownloadRegistry::forgetLocation(const Path& location) {
  std::lock_guard guard(mutex_);
  for (const auto& [id, task] : downloads_) {
    task->update([&](DownloadTask::Snapshot& fields) {
      if (fields.location == location) fields.location.reset();
    });
  }
}

}  // namespace tarn
