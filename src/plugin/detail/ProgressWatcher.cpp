#include "plugin/detail/ProgressWatcher.h"

#include <atomic>
#include <chrono>
#include <utility>

namespace tarn {
namespace {

constexpr std::chrono::seconds pause{1};

}  // namespace

struct ProgressWatcher::State : std::enable_shared_from_this<State> {
  Dispatch& dispatch;
  const std::function<bool()> look;
  const std::shared_ptr<DispatchQueue> progressCheckerQueue;
  std::atomic<bool> isEnded = false;

  // Read and written on the progressCheckerQueue only.
  bool isProgressCheckerRunning = false;
  bool wasAskedWhileRunning = false;
  int loop = 0;  ///< number of the loop that runs, or ran last

  State(Dispatch& queues, std::function<bool()> work)
      : dispatch(queues),
        look(std::move(work)),
        progressCheckerQueue(dispatch.makeSerialQueue("com.fenwick.progressCheckerQueue", false)) {}

  void start() {
    wasAskedWhileRunning = std::exchange(isProgressCheckerRunning, true);
    if (!wasAskedWhileRunning) turn(++loop);
  }

  /// One turn of a loop, unless a newer one has begun.
  void turn(int ofLoop) {
    if (isEnded || ofLoop != loop) return;
    dispatch.globalQueue(QualityOfService::background).async([self = shared_from_this(), ofLoop] {
      const bool isAnyActive = !self->isEnded && self->look();
      self->progressCheckerQueue->async([self, ofLoop, isAnyActive] { self->goOn(ofLoop, isAnyActive); });
    });
  }

  void goOn(int ofLoop, bool isAnyActive) {
    if (ofLoop != loop) return;
    if (isAnyActive) {
      progressCheckerQueue->asyncAfter(pause, [self = shared_from_this(), ofLoop] { self->turn(ofLoop); });
    } else if (std::exchange(wasAskedWhileRunning, false)) {
      turn(ofLoop);
    } else {
      isProgressCheckerRunning = false;
    }
  }
};

ProgressWatcher::ProgressWatcher(Dispatch& dispatch, std::function<bool()> look)
    : state_(std::make_shared<State>(dispatch, std::move(look))) {}

ProgressWatcher::~ProgressWatcher() {
  state_->isEnded = true;
}

void ProgressWatcher::startCheckingProgress() {
  state_->progressCheckerQueue->async([state = state_] { state->start(); });
}

void ProgressWatcher::stopCheckingProgress() {
  state_->progressCheckerQueue->async([state = state_] { state->isProgressCheckerRunning = false; });
}

}  // namespace tarn
