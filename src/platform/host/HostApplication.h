#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "platform/Dispatch.h"
#include "platform/UIApplication.h"

namespace tarn {

/// The application on a host without one: whoever runs the process says when it leaves and enters the foreground and
/// when its time ends. Starts active. Needs nothing but a dispatch, which must outlive it, so it serves tests too.
/// Thread-safe.
class HostApplication : public UIApplication {
 public:
  struct Settings {
    std::string bundleIdentifier = "com.tarn.host";
    /// How long background tasks may run on, counted from the entry into the background; without it, for ever.
    std::optional<std::chrono::seconds> backgroundLimit;
  };

  explicit HostApplication(Dispatch& dispatch);
  HostApplication(Dispatch& dispatch, Settings settings);
  ~HostApplication() override;

  UIApplicationState applicationState() override;
  std::string bundleIdentifier() override;

  /// A task begun in the background when the limit has passed already is granted, and its handler comes at once.
  UIBackgroundTaskIdentifier beginBackgroundTask(const std::string& name, std::function<void()> expiration) override;
  void endBackgroundTask(UIBackgroundTaskIdentifier identifier) override;
  void addObserver(std::weak_ptr<UIApplicationObserver> observer) override;

  /// Changes the state, if it is not so already, and then posts the observers' call to the main queue.
  void enterBackground();
  /// The same, but the observers hear of it again when it is so already: a host without a screen returns to the
  /// foreground to have the next piece of stored work taken up.
  void enterForeground();

  /// Posts the observers' last call to the main queue.
  void terminate();

  /// Ends the background time now: once what the main queue holds already has run, all tasks that live then get their
  /// handlers called there. Until the next return to the foreground, tasks begun in the background expire at once.
  void expireBackgroundTime();

 private:
  class Life;

  const std::string bundleIdentifier_;
  const std::shared_ptr<Life> life_;  // shared with what waits on the main queue
};

}  // namespace tarn
