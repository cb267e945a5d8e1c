#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace tarn {

/// A queue of work. Work that throws ends the process (std::terminate), as it would on a thread. Thread-safe.
class DispatchQueue {
 public:
  using Work = std::function<void()>;

  virtual ~DispatchQueue() = default;

  /// Runs the work later, on a thread of the queue. A serial queue runs its work one at a time, in the order of the
  /// calls.
  virtual void async(Work work) = 0;

  /// Runs the work on the queue and returns when it is done. On a serial queue this must not be called from the queue
  /// itself: it would wait for ever.
  virtual void sync(const Work& work) = 0;

  /// As async, but not before `delay` has passed.
  virtual void asyncAfter(std::chrono::nanoseconds delay, Work work) = 0;
};

enum class QualityOfService { userInitiated, background };

/// The queues of a process. Queues that it hands out live as long as it does.
class Dispatch {
 public:
  virtual ~Dispatch() = default;

  /// The serial queue that stands for the main thread: delegate calls and lifecycle notifications run there.
  virtual DispatchQueue& mainQueue() = 0;

  /// A concurrent queue; work on it may block.
  virtual DispatchQueue& globalQueue(QualityOfService qualityOfService) = 0;

  /// Makes a new serial queue. Work on it may block without holding up any other queue when `ownThread` is set.
  virtual std::shared_ptr<DispatchQueue> makeSerialQueue(std::string label, bool ownThread) = 0;
};

}  // namespace tarn
