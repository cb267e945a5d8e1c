#include "download/detail/BackgroundTime.h"

#include <utility>

#include "platform/Log.h"

namespace tarn {

BackgroundTime::BackgroundTime(UIApplication& application, std::function<void()> expired)
    : application_(application), expired_(std::move(expired)) {}

void BackgroundTime::start(int64_t id) {
  end();
  auto expiration = [weak = weak_from_this(), id] {
    log("Background task expiring for download {}", id);
    if (auto self = weak.lock()) self->expired_();
  };
  UIBackgroundTaskIdentifier task =
      application_.beginBackgroundTask("VideoProcessing-" + std::to_string(id), std::move(expiration));
  {
    std::lock_guard guard(mutex_);
    backgroundTaskId_ = task;
    downloadId_ = id;
  }
  if (task == UIBackgroundTaskInvalid) {
    logLine("WARNING: Failed to start background task - system may suspend app during processing");
  } else {
    log("Started background task {} for download {}", task, id);
  }
}

void BackgroundTime::end(std::optional<int64_t> id) {
  UIBackgroundTaskIdentifier task = UIBackgroundTaskInvalid;
  {
    std::lock_guard guard(mutex_);
    if (id && *id != downloadId_) return;
    task = std::exchange(backgroundTaskId_, UIBackgroundTaskInvalid);
  }
  if (task == UIBackgroundTaskInvalid) return;
  log("Ending background task {}", task);
  application_.endBackgroundTask(task);
}

}  // namespace tarn
