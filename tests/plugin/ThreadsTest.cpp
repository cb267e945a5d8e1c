// The engine on real threads under the model's steps.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <random>
#include <thread>

#include "platform/host/AsioDispatch.h"
#include "plugin/EngineDriver.h"
#include "support/Eventually.h"

namespace tarn::test {
namespace {

using namespace std::chrono_literals;

/// Lets other threads go first, now and then, as a busy machine does.
void hesitate() {
  static std::atomic<uint32_t> threads = 0;
  thread_local std::minstd_rand random(++threads);
  if (random() % 32 == 0) std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
}

/// Real queues on real threads that tell when they have nothing left to do. Delays pass a thousand times as fast.
class CountedDispatch : public Dispatch {
 public:
  ~CountedDispatch() override { stop(); }

  DispatchQueue& mainQueue() override { return main_; }
  DispatchQueue& globalQueue(QualityOfService) override { return global_; }
  std::shared_ptr<DispatchQueue> makeSerialQueue(std::string label, bool ownThread) override {
    const auto queue = base_.makeSerialQueue(std::move(label), ownThread);
    return std::make_shared<Queue>(*queue, pieces_, queue);
  }

  /// Ends the work that runs, and drops the rest.
  void stop() { base_.stop(); }

  /// Waits until no queue has work but what is delayed; false when that takes longer than a minute.
  bool waitUntilIdle() {
    return eventually([this] { return *pieces_ == 0; });
  }

 private:
  using Count = std::shared_ptr<std::atomic<size_t>>;

  class Queue : public DispatchQueue {
   public:
    Queue(DispatchQueue& base, Count pieces, std::shared_ptr<DispatchQueue> owner = nullptr)
        : base_(base), owner_(std::move(owner)), pieces_(std::move(pieces)) {}

    void async(Work work) override {
      ++*pieces_;
      base_.async([pieces = pieces_, work = std::move(work)] {
        hesitate();
        work();
        --*pieces;
      });
    }
    void sync(const Work& work) override { base_.sync(work); }
    void asyncAfter(std::chrono::nanoseconds delay, Work work) override {
      base_.asyncAfter(delay / 1000, [pieces = pieces_, work = std::move(work)] {
        ++*pieces;
        work();
        --*pieces;
      });
    }

   private:
    DispatchQueue& base_;
    const std::shared_ptr<DispatchQueue> owner_;
    const Count pieces_;
  };

  AsioDispatch base_;
  const Count pieces_ = std::make_shared<std::atomic<size_t>>(0);
  Queue main_{base_.mainQueue(), pieces_};
  Queue global_{base_.globalQueue(QualityOfService::background), pieces_};
};

/// Two pages, the application and the transfers each have a thread, and the engine's queues have theirs. The steps keep
/// their order on each thread and roughly between them. What holds only at rest is looked at then.
class EngineThreads : private EngineDriver {
 public:
  /// As EngineModel::brokenBy; but the same steps may go another way each time.
  static std::optional<std::string> brokenBy(const std::vector<ModelStep>& steps) {
    EngineThreads engine;
    for (auto from = steps.begin();;) {
      const auto to = std::ranges::find(from, steps.end(), std::string_view("restart"), &ModelStep::kind);
      engine.runPhase({from, to});
      engine.storeFault_.reset();
      if (engine.broken_ || to == steps.end()) break;
      engine.restart();
      from = std::next(to);
    }
    if (!engine.broken_) engine.comeToAnEnd();
    return engine.broken_;
  }

  ~EngineThreads() override { EngineThreads::endProcess(); }

 private:
  static constexpr size_t lead = 8;  ///< steps that may be done before one that was to come first

  /// While it lives, what a thread does may reach downloads that begin meanwhile.
  struct Disturbance {
    explicit Disturbance(EngineThreads& disturbed) : engine(disturbed) {
      ++engine.disturbancesNow_;
      ++engine.disturbances_;
    }
    ~Disturbance() { --engine.disturbancesNow_; }
    EngineThreads& engine;
  };

  EngineThreads() {
    slowDisk_.arm({.errnum = 0, .lasting = true, .strike = hesitate});
    EngineThreads::startProcess();
  }

  void startProcess() override {
    queues_ = std::make_unique<CountedDispatch>();
    openProcess(*queues_, slowDisk_);
    // Transfers whose end the last process did not hear go with the making of the session: not while one is driven.
    plugin_->downloadManager().handleEventsForBackgroundURLSession();
  }

  /// As a kill does: of the work that has not begun nothing is done.
  void endProcess() override {
    queues_->stop();
    plugin_.reset();
    application_.reset();
    queues_.reset();
  }

  void runPhase(const std::vector<ModelStep>& steps) {
    stepsDone_ = 0;
    std::vector<std::thread> running;
    for (size_t thread = 0; thread < threads; ++thread) running.emplace_back([&, thread] { drive(steps, thread); });
    for (std::thread& thread : running) thread.join();
  }

  static size_t threadOf(const ModelStep& step) {
    if (step.kind == "start") return step.argument % 2 ? firstPage : secondPage;
    const Thread thread = rowOf(step).thread;
    return thread == threads ? step.argument % threads : thread;
  }

  void drive(const std::vector<ModelStep>& steps, size_t thread) {
    for (size_t at = 0; at < steps.size(); ++at) {
      if (threadOf(steps[at]) != thread) continue;
      std::unique_lock lock(turnMutex_);
      turned_.wait(lock, [&] { return stepsDone_ + lead >= at; });
      lock.unlock();
      perform(steps[at]);
      if (thread == firstPage && storeFault_ && storeFiles_.fired()) {
        storeFiles_.disarm();
        storeFault_.reset();
      }
      lock.lock();
      ++stepsDone_;
      turned_.notify_all();
    }
  }

  void perform(const ModelStep& step) override {
    std::optional<Disturbance> disturbance;
    if (step.kind == "jump") disturbance.emplace(*this);
    if (step.kind == "failStore") storeFault_.emplace(*this);
    EngineDriver::perform(step);
    // Which may come at any moment.
    if (step.kind == "turn") plugin_->downloadManager().checkAndResumePendingProcessing();
    if (step.kind == "settle") std::this_thread::sleep_for(1ms);
  }

  void inTheMiddleOfARun(uint64_t number) override { std::this_thread::sleep_for(300us * (number % 4)); }

  std::optional<uint64_t> start(uint32_t argument) override {
    const size_t before = disturbances_;
    const bool isDisturbed = disturbancesNow_ > 0;
    const auto number = EngineDriver::start(argument);
    if (number && (isDisturbed || disturbances_ != before)) mayComeToNothing(*number);
    return number;
  }

  void cancel(uint64_t number, int64_t id) override {
    mayComeToNothing(number);
    call("cancel", {{"id", id}});
  }

  void mayComeToNothing(uint64_t number) {
    note(number, [](Download& download) { download.mayBeLost = download.mayStayUntold = true; });
  }

  void cancelEverything(const std::string& method) override {
    const Disturbance disturbance(*this);
    giveUp(true);
    call(method);
    giveUp(true);
  }

  void letTimePass() override { require(queues_->waitUntilIdle(), "the queues come to rest"); }

  bool isLate(int round) override {
    const auto now = std::chrono::steady_clock::now();
    if (round == 0) deadline_ = now + 1min;
    return now > deadline_;
  }

  std::atomic<size_t> disturbances_ = 0, disturbancesNow_ = 0;

  std::mutex turnMutex_;
  std::condition_variable turned_;
  size_t stepsDone_ = 0;  ///< of this phase

  FaultyFileManager slowDisk_{disk_};
  std::optional<Disturbance> storeFault_;  ///< of the first page's thread
  std::unique_ptr<CountedDispatch> queues_;
  std::chrono::steady_clock::time_point deadline_;
};

TEST(EngineThreadsTest, KeepsItsPromisesOnRealThreads) {
  const uint32_t first = numberFrom("TARN_MODEL_FIRST", 0), seeds = numberFrom("TARN_MODEL_SEEDS", 100);
  for (uint32_t seed = first; seed < first + seeds; ++seed) {
    const auto broken = EngineThreads::brokenBy(EngineDriver::drawSteps(seed, 200));
    ASSERT_EQ(broken.value_or(""), "") << "seed " << seed;
  }
}

}  // namespace
}  // namespace tarn::test
