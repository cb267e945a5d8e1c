#include "plugin/ProgressWatcher.h"

#include <utility>

namespace tarn {

struct ProgressWatcher::State {
  std::function<bool()> look;
  std::shared_ptr<DispatchQueue> queue;
  bool isProgressCheckerRunning = false;  ///< read and written on the queue only

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
    : dispatch_(dispatch),
      progressCheckerQueue_(dispatch.makeSerialQueue("com.fenwick.progressCheckerQueue", false)),
      state_(std::make_shared<State>()) {
  state_->look = std::move(look);
  state_->queue = progressCheckerQueue_;
}

ProgressWatcher::~ProgressWatcher() {
  {
    std::lock_guard guard(state_->mutex);
    state_->isEnded = true;
  }
  state_->ended.notify_all();
}

void ProgressWatcher::startCheckingProgress() {
  progressCheckerQueue_->async([state = state_, &dispatch = dispatch_] {
    if (state->isProgressCheckerRunning) return;
    state->isProgressCheckerRunning = true;
    dispatch.globalQueue(QualityOfService::background).async([state] { loop(state); });
  });
}

void ProgressWatcher::loop(const std::shared_ptr<State>& state) {
  while (state->look() && state->waitForNextLook()) {
  }
  state->queue->sync([&] { state->isProgressCheckerRunning = false; });
}

void ProgressWatcher::stopCheckingProgress() {
  progressCheckerQueue_->sync([this] { state_->isProgressCheckerRunning = false; });
}

}  // namespace tarn
