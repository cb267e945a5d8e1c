#pragma once

#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <utility>

#include "platform/host/HostApplication.h"

namespace tarn::test {

/// Counts the background time that was given out and not given back.
class CountedApplication : public HostApplication {
 public:
  using HostApplication::HostApplication;

  UIBackgroundTaskIdentifier beginBackgroundTask(const std::string& name, std::function<void()> expiration) override {
    const auto task = HostApplication::beginBackgroundTask(name, std::move(expiration));
    std::lock_guard guard(mutex_);
    if (task != UIBackgroundTaskInvalid) held_.insert(task);
    return task;
  }
  void endBackgroundTask(UIBackgroundTaskIdentifier task) override {
    HostApplication::endBackgroundTask(task);
    std::lock_guard guard(mutex_);
    held_.erase(task);
  }

  size_t held() {
    std::lock_guard guard(mutex_);
    return held_.size();
  }

 private:
  std::mutex mutex_;
  std::set<UIBackgroundTaskIdentifier> held_;
};

}  // namespace tarn::test
