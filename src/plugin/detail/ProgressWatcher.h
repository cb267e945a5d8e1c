#pragma once

#include <functional>
#include <memory>

#include "platform/Dispatch.h"

namespace tarn {

/// Looks at the active downloads once a second, on the global background queue, for as long as there are any. A timer
/// brings the next look, so no thread waits. It has no lock: its state is used on a serial queue of its own,
/// com.fenwick.progressCheckerQueue. It ends with this object.
class ProgressWatcher {
 public:
  /// `look` sends what there is to send and returns false if no download is active, which ends the loop. It must keep
  /// alive what it uses, since the last look may outlive the watcher.
  ProgressWatcher(Dispatch& dispatch, std::function<bool()> look);
  ~ProgressWatcher();
  ProgressWatcher(const ProgressWatcher&) = delete;
  ProgressWatcher& operator=(const ProgressWatcher&) = delete;

  /// Starts the loop, later. If one runs, it looks once more before it ends, so that a download that begins during its
  /// last look is not missed.
  void startCheckingProgress();

  /// The next start begins a new loop, and then the one that runs now ends.
  void stopCheckingProgress();

 private:
  struct State;
  std::shared_ptr<State> state_;  ///< shared with the loop, which may outlive the watcher by a moment
};

}  // namespace tarn
