#include "download/detail/BackgroundTime.h"

#include <utility>

#include "platform/Log.h"

namespace tarn {

BackgroundTime::BackgroundTime(UIApplication& application, const EnginePosts& posts, std::function<void()> expired)
    : application_(application), posts_(posts), expired_(std::move(expired)) {}

void BackgroundTime::start(int64_t id) {
  end();
  auto expiration = posts_.whileAlive([this, id] {
    log("Background task expiring for download {}", id);
    expired_();
  });
  const UIBackgroundTaskIdentifier task =
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
