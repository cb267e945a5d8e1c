#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "plugin/CountedDispatch.h"
#include "plugin/EngineDriver.h"

namespace tarn::test {

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
