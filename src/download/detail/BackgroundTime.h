#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>

#include "download/detail/EnginePosts.h"
#include "platform/UIApplication.h"

namespace tarn {

/// The one background task that the engine may hold, so that a run goes on while the application is not in the
/// foreground. Thread-safe: the application is called under no lock.
class BackgroundTime {
 public:
  /// `expired` runs on the main queue when the time is over, unless the engine has gone by then.
  BackgroundTime(UIApplication& application, const EnginePosts& posts, std::function<void()> expired);

  /// Asks for background time for this download; what was held before is given back.
  void start(int64_t id);
  /// Gives back what is held; with an id only if it is held for that download.
  void end(std::optional<int64_t> id = std::nullopt);

 private:
  UIApplication& application_;
  const EnginePosts& posts_;
  const std::function<void()> expired_;
  std::mutex mutex_;
  UIBackgroundTaskIdentifier backgroundTaskId_ = UIBackgroundTaskInvalid;
  int64_t downloadId_ = 0;
};

}  // namespace tarn
