#pragma once

#include <functional>
#include <memory>

#include "platform/Dispatch.h"

namespace tarn {

/// Looks at the active downloads once a second, on the background queue, for as long as there are any. It waits by a
/// timer, so that it keeps no thread busy. It ends with this object.
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

  /// Lets the next start begin a loop of its own, with which the one that runs now ends.
  void stopCheckingProgress();

 private:
  struct State;
  std::shared_ptr<State> state_;  ///< shared with the loop, which may outlive the watcher by a moment
};

}  // namespace tarn
