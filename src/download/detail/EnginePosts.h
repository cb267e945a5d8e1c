#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <utility>

#include "platform/Dispatch.h"

namespace tarn {

/// Posts the engine's work to queues. Work lives shorter than the engine or not at all: while it is done it keeps the
/// engine alive, and it is dropped if the engine has gone by its turn. So it may use all parts of the engine.
class EnginePosts {
 public:
  using Work = std::function<void()>;

  /// The dispatch must outlive all that is posted.
  explicit EnginePosts(Dispatch& dispatch) : dispatch_(dispatch) {}

  /// Set once, before anything is posted.
  void setEngine(std::weak_ptr<const void> engine) { engine_ = std::move(engine); }

  void post(DispatchQueue& queue, Work work) const { queue.async(whileAlive(std::move(work))); }
  void postToMain(Work work) const { post(dispatch_.mainQueue(), std::move(work)); }
  void postToMainAfter(std::chrono::milliseconds delay, Work work) const {
    dispatch_.mainQueue().asyncAfter(delay, whileAlive(std::move(work)));
  }

  /// The same work, for whoever calls it later: it does nothing once the engine has gone.
  Work whileAlive(Work work) const {
    return [engine = engine_, work = std::move(work)] {
      if (const auto alive = engine.lock()) work();
    };
  }

 private:
  Dispatch& dispatch_;
  std::weak_ptr<const void> engine_;
};

}  // namespace tarn
