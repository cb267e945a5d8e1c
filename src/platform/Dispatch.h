#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace tarn {

/// A queue of work. Work that throws ends the process (std::terminate), as it would on a thread. Thread-safe.
///
/// The queues without a thread of their own share a few threads. Work on them never sleeps and never waits for another
/// queue: who has to wait hands in the rest of its work with asyncAfter, or with async where the waiting ends. Short
/// work on files is fine.
class DispatchQueue {
 public:
  using Work = std::function<void()>;

  virtual ~DispatchQueue() = default;

  /// Runs the work later, on a thread of the queue. A serial queue runs its work one at a time, in the order of the
  /// calls.
  virtual void async(Work work) = 0;

  /// Runs the work on the queue and returns when it is done. For threads that are no queue's. On a serial queue this
  /// must not be called from the queue itself: it would wait for ever.
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

  /// A concurrent queue.
  virtual DispatchQueue& globalQueue(QualityOfService qualityOfService) = 0;

  /// Makes a new serial queue. With `ownThread` it has a thread of its own, on which work may take its time and wait.
  virtual std::shared_ptr<DispatchQueue> makeSerialQueue(std::string label, bool ownThread) = 0;
};

}  // namespace tarn
