#include "plugin/ProgressWatcher.h"

#include <utility>

namespace tarn {

struct ProgressWatcher::State {
  std::function<bool()> look;
  std::shared_ptr<DispatchQueue> progressCheckerQueue;
  bool isProgressCheckerRunning = false;  ///< this and the next: read and written on the queue only
  bool wasAskedWhileRunning = false;

  std::mutex mutex;
  std::condition_variable ended;
  bool isEnded = false;

  /// False when the end came meanwhile.
  bool waitForNextLook() {
    std::unique_lock guard(mutex);
    return !ended.wait_for(guard, std::chrono::seconds(1), [this] { return isEnded; });
  }
};

ProgressWatcher::ProgressWatcher(Dispatch& dispatch, std::function<bool()> look)
    : dispatch_(dispatch), state_(std::make_shared<State>()) {
  state_->look = std::move(look);
  state_->progressCheckerQueue = dispatch.makeSerialQueue("com.fenwick.progressCheckerQueue", false);
}

ProgressWatcher::~ProgressWatcher() {
  {
    std::lock_guard guard(state_->mutex);
    state_->isEnded = true;
  }
  state_->ended.notify_all();
}

void ProgressWatcher::startCheckingProgress() {
  state_->progressCheckerQueue->async([state = state_, &dispatch = dispatch_] {
    state->wasAskedWhileRunning = std::exchange(state->isProgressCheckerRunning, true);
    if (state->wasAskedWhileRunning) return;
    dispatch.globalQueue(QualityOfService::background).async([state] { loop(state); });
  });
}

void ProgressWatcher::loop(const std::shared_ptr<State>& state) {
  bool goesOn = true;
  while (goesOn) {
    while (state->look() && state->waitForNextLook()) {
    }
    state->progressCheckerQueue->sync([&] {
      goesOn = std::exchange(state->wasAskedWhileRunning, false);
      state->isProgressCheckerRunning = goesOn;
    });
  }
}

void ProgressWatcher::stopCheckingProgress() {
  state_->progressCheckerQueue->sync([this] { state_->isProgressCheckerRunning = false; });
}

}  // namespace tarn
