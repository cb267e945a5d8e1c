#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace tarn {

enum class UIApplicationState { active = 0, inactive = 1, background = 2 };

using UIBackgroundTaskIdentifier = uint64_t;
inline constexpr UIBackgroundTaskIdentifier UIBackgroundTaskInvalid = 0;

/// Is told of the application's life. All calls come on the main queue.
class UIApplicationObserver {
 public:
  virtual ~UIApplicationObserver() = default;
  virtual void appDidEnterBackground() = 0;
  virtual void appWillEnterForeground() = 0;
  virtual void appWillTerminate() = 0;
};

/// The application: its state, its background time and its lifecycle notifications. Thread-safe.
class UIApplication {
 public:
  virtual ~UIApplication() = default;

  virtual UIApplicationState applicationState() = 0;

  /// The identifier of the main bundle, stable for an installation.
  virtual std::string bundleIdentifier() = 0;

  /// Asks for time to run on in the background. The handler runs on the main queue when that time ends; it must call
  /// endBackgroundTask. UIBackgroundTaskInvalid when no time is granted: the handler is then dropped.
  virtual UIBackgroundTaskIdentifier beginBackgroundTask(const std::string& name, std::function<void()> expiration) = 0;

  /// Gives the time back; the handler will not run any more. An unknown identifier is ignored.
  virtual void endBackgroundTask(UIBackgroundTaskIdentifier identifier) = 0;

  /// Adds an observer for the three notifications. It is held weakly and skipped once it is gone.
  virtual void addObserver(std::weak_ptr<UIApplicationObserver> observer) = 0;
};

}  // namespace tarn
