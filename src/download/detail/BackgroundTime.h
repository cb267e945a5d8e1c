#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/UIApplication.h"

namespace tarn {

/// The one background task that the engine may hold, so that a run goes on while the application is not in the
/// foreground. Thread-safe.
class BackgroundTime : public std::enable_shared_from_this<BackgroundTime> {
 public:
  /// `expired` runs on the main queue when the time is over; it is dropped with this object.
  BackgroundTime(UIApplication& application, std::function<void()> expired);

  /// Asks for background time for this download; what was held before is given back.
  void start(int64_t id);
  /// Gives back what is held; with an id only if it is held for that download.
  void end(std::optional<int64_t> id = std::nullopt);

 private:
  UIApplication& application_;
  const std::function<void()> expired_;
  std::mutex mutex_;
  UIBackgroundTaskIdentifier backgroundTaskId_ = UIBackgroundTaskInvalid;
  int64_t downloadId_ = 0;
};

}  // namespace tarn
