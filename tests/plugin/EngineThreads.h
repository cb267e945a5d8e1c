#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/host/AsioDispatch.h"
#include "plugin/EngineDriver.h"

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

/// The same steps as the model's on real threads: two pages, the application and the transfers each have one, and the
/// engine's queues have theirs. The steps keep their order on each thread and roughly between them. What holds only at
/// rest is looked at then.
class EngineThreads : private EngineDriver {
 public:
  /// As EngineModel::brokenBy; but the same steps may go another way each time.
  static std::optional<std::string> brokenBy(const std::vector<ModelStep>& steps);

  ~EngineThreads() override;

 private:
  enum Thread : size_t { firstPage, secondPage, application, transfers, threads };

  /// While it lives, what a thread does may reach downloads that begin meanwhile.
  class Disturbance {
   public:
    explicit Disturbance(EngineThreads& engine);
    ~Disturbance();

   private:
    EngineThreads& engine_;
  };

  EngineThreads();
  void startProcess() override;
  void endProcess() override;
  void runPhase(const std::vector<ModelStep>& steps);
  void drive(const std::vector<ModelStep>& steps, Thread thread);
  static Thread threadOf(const ModelStep& step);
  void perform(const ModelStep& step) override;
  void inTheMiddleOfARun(uint64_t number) override;
  std::optional<uint64_t> start(uint32_t argument) override;
  void cancel(uint64_t number, int64_t id) override;
  void cancelEverything(const std::string& method) override;
  void letTimePass() override;
  bool isLate(int round) override;

  size_t disturbances_ = 0;  // mutex_ guards it and the next
  size_t disturbancesNow_ = 0;

  std::mutex turnMutex_;
  std::condition_variable turned_;
  size_t stepsDone_ = 0;  ///< of this phase

  std::unique_ptr<Disturbance> storeFault_;  ///< of the first page's thread
  std::unique_ptr<CountedDispatch> queues_;
  std::chrono::steady_clock::time_point deadline_;
};

}  // namespace tarn::test
