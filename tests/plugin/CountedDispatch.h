#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "platform/host/AsioDispatch.h"

namespace tarn::test {

/// Real queues on real threads that tell when they have nothing left to do. Delays pass a thousand times as fast.
class CountedDispatch : public Dispatch {
 public:
  ~CountedDispatch() override { stop(); }

  DispatchQueue& mainQueue() override { return main_; }
  DispatchQueue& globalQueue(QualityOfService) override { return global_; }
  std::shared_ptr<DispatchQueue> makeSerialQueue(std::string label, bool ownThread) override {
    const auto queue = base_.makeSerialQueue(std::move(label), ownThread);
    return std::make_shared<Queue>(*queue, count_, queue);
  }

  /// Ends the work that runs, and drops the rest.
  void stop() { base_.stop(); }

  /// Waits until no queue has work but what is delayed; false when that takes longer than a minute.
  bool waitUntilIdle() {
    std::unique_lock lock(count_->mutex);
    return count_->idle.wait_for(lock, std::chrono::minutes(1), [this] { return count_->pieces == 0; });
  }

 private:
  struct Count {
    std::mutex mutex;
    std::condition_variable idle;
    size_t pieces = 0;

    void begin() {
      std::lock_guard guard(mutex);
      ++pieces;
    }
    void end() {
      std::lock_guard guard(mutex);
      if (--pieces == 0) idle.notify_all();
    }
  };

  class Queue : public DispatchQueue {
   public:
    Queue(DispatchQueue& base, std::shared_ptr<Count> count, std::shared_ptr<DispatchQueue> owner = nullptr)
        : base_(base), owner_(std::move(owner)), count_(std::move(count)) {}

    void async(Work work) override {
      count_->begin();
      base_.async([count = count_, work = std::move(work)] {
        work();
        count->end();
      });
    }
    void sync(const Work& work) override { base_.sync(work); }
    void asyncAfter(std::chrono::nanoseconds delay, Work work) override {
      base_.asyncAfter(delay / 1000, [count = count_, work = std::move(work)] {
        count->begin();
        work();
        count->end();
      });
    }

   private:
    DispatchQueue& base_;
    const std::shared_ptr<DispatchQueue> owner_;
    const std::shared_ptr<Count> count_;
  };

  AsioDispatch base_;
  const std::shared_ptr<Count> count_ = std::make_shared<Count>();
  Queue main_{base_.mainQueue(), count_};
  Queue global_{base_.globalQueue(QualityOfService::background), count_};
};

}  // namespace tarn::test
