#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

#include "platform/Dispatch.h"

namespace tarn {

/// Looks at the active downloads once a second, on a worker of the background queue, for as long as there are any. Its
/// waits end when it is destroyed.
class ProgressWatcher {
 public:
  /// `look` sends what there is to send; false when no download is active, which ends the loop. It must keep alive what
  /// it uses, since the last look may outlive the watcher.
  ProgressWatcher(Dispatch& dispatch, std::function<bool()> look);
  ~ProgressWatcher();
  ProgressWatcher(const ProgressWatcher&) = delete;
  ProgressWatcher& operator=(const ProgressWatcher&) = delete;

  /// Starts the loop, later. One that runs looks once more before it ends, so that a download that begins during its
  /// last look is not missed.
  void startCheckingProgress();

  /// Lets the next start begin a loop of its own. A loop that runs ends by itself when no download is active.
  void stopCheckingProgress();

 private:
  struct State;
  static void loop(const std::shared_ptr<State>& state);

  Dispatch& dispatch_;
  std::shared_ptr<State> state_;  ///< shared with the loop, which may outlive the watcher by a moment
};

}  // namespace tarn
