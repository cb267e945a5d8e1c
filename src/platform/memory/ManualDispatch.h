#pragma once

#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>

#include "platform/Dispatch.h"

namespace tarn {

/// Queues that hold their work until they are told to run it, on the thread that tells them, in one order: that of the
/// calls. For tests that choose an interleaving. Work may be handed in from any thread; everything else belongs to one
/// thread. Its queues must not be used once it is gone.
class ManualDispatch : public Dispatch {
 public:
  ManualDispatch();
  ~ManualDispatch() override;

  DispatchQueue& mainQueue() override;
  DispatchQueue& globalQueue(QualityOfService qualityOfService) override;
  std::shared_ptr<DispatchQueue> makeSerialQueue(std::string label, bool ownThread) override;

  /// The newest serial queue with this label. Throws std::out_of_range when there is none.
  DispatchQueue& serialQueue(const std::string& label);

  /// Runs work of all queues that are not held until none is left, new work included. Returns the number of pieces
  /// run. Delayed work waits for advance().
  size_t runUntilIdle();

  /// Runs at most one piece of work, as runUntilIdle does; false if there was none.
  bool runNext();

  /// Runs one piece of work of those that may begin now: the first of each serial queue, and all of the others.
  /// `choose` gets their number, and names one. False if there is none.
  bool runOne(const std::function<size_t(size_t)>& choose);

  /// Runs until idle, lets the time pass, and runs delayed work as it becomes due, with all that follows from it.
  void advance(std::chrono::nanoseconds duration);

  /// Keeps back the queue's work until release(): its worker is busy elsewhere. sync() does not heed it.
  void hold(DispatchQueue& queue);
  void release(DispatchQueue& queue);

 private:
  class Queue;
  struct Entry {
    std::shared_ptr<Queue> queue;
    DispatchQueue::Work work;
    std::chrono::nanoseconds due;
  };

  std::shared_ptr<Queue> makeQueue(std::string label, bool serial);
  void post(std::shared_ptr<Queue> queue, std::chrono::nanoseconds delay, DispatchQueue::Work work);
  bool runFirst(const Queue* only);
  std::list<Entry> takeFirst(const Queue* only);

  std::mutex mutex_;          // guards entries_ and now_
  std::list<Entry> entries_;  // in the order in which they run, due or not
  std::chrono::nanoseconds now_{0};

  std::list<std::shared_ptr<Queue>> queues_;
  std::shared_ptr<Queue> main_;
  std::shared_ptr<Queue> userInitiated_;
  std::shared_ptr<Queue> background_;
};

}  // namespace tarn
