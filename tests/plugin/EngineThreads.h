#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/memory/InMemoryFileManager.h"
#include "platform/memory/InMemoryPhotoLibrary.h"
#include "platform/memory/ManualDispatch.h"
#include "platform/memory/ScriptedURLSession.h"
#include "plugin/CountedApplication.h"
#include "plugin/CountedDispatch.h"
#include "plugin/EngineModel.h"
#include "plugin/SavingStep.h"
#include "plugin/TarnBridgePlugin.h"
#include "support/FaultyFileManager.h"
#include "support/ManualClock.h"

namespace tarn::test {

/// The same steps as the model's on real threads: two pages, the application and the transfers each have one, and the
/// engine's queues have theirs. The steps keep their order on each thread and roughly between them. What holds only at
/// rest is looked at then.
class EngineThreads {
 public:
  /// As EngineModel::brokenBy; but the same steps may go another way each time.
  static std::optional<std::string> brokenBy(const std::vector<ModelStep>& steps);

  ~EngineThreads();
  EngineThreads(const EngineThreads&) = delete;
  EngineThreads& operator=(const EngineThreads&) = delete;

 private:
  enum Driver : size_t { firstPage, secondPage, application, transfers, drivers };

  /// What the engine owes to one download, which is known by the number in its URL.
  struct Download {
    int64_t id = 0;
    bool isDelivered = false;
    bool mayFail = false;    ///< a failure was drawn for it
    bool mayBeLost = false;  ///< the page gave it up, or a store failed, or it lay idle for a day
    bool mayStayUntold = false;
  };
  /// What a page heard of one id.
  struct Told {
    int byThisProcess = 0;
    bool asSaved = false;
    bool asFailed = false;
  };

  class Step : public SavingStep {
   public:
    Step(EngineThreads& engine, PHPhotoLibrary& photos, const Clock& clock)
        : SavingStep(photos, clock), engine_(engine) {}
    void run(ProcessingRun& run) override;

   private:
    EngineThreads& engine_;
  };

  /// While it lives, what a thread does may reach downloads that begin meanwhile.
  class Disturbance {
   public:
    explicit Disturbance(EngineThreads& engine);
    ~Disturbance();

   private:
    EngineThreads& engine_;
  };

  EngineThreads();
  void startProcess();
  void endProcess();
  void restart();
  void runPhase(const std::vector<ModelStep>& steps);
  void drive(const std::vector<ModelStep>& steps, Driver driver);
  static Driver driverOf(const ModelStep& step);
  void perform(const ModelStep& step);

  JSObject call(const std::string& method, JSObject options = {});
  bool start(uint32_t argument);
  void cancel(uint32_t argument);
  void cancelEverything(const std::string& method);
  void withTransfer(uint32_t argument, bool isDelivered, const std::function<void(const std::string& url)>& work);
  void giveUp(bool mayBeLost);
  void deliver(const std::string& url);
  void note(const std::string& url, const std::function<void(Download&)>& change);

  void hear(const std::string& name, const JSObject& data);
  void comeToAnEnd();
  void lookAtRest();
  void require(bool holds, const std::string& promise, int64_t id = 0);
  size_t saved(uint64_t number);
  std::vector<ProcessingState> pending();

  std::mutex brokenMutex_;  // a leaf: the log asks for it under every lock
  std::optional<std::string> broken_;

  std::mutex mutex_;  // guards the four below; never held while the engine is called
  std::map<uint64_t, Download> downloads_;
  std::map<int64_t, Told> told_;
  size_t disturbances_ = 0;
  size_t disturbancesNow_ = 0;

  std::mutex turnMutex_;
  std::condition_variable turned_;
  size_t stepsDone_ = 0;  ///< of this phase

  std::atomic<uint64_t> starts_ = 0;
  std::atomic<bool> isInRun_ = false;
  std::atomic<bool> runFails_ = false;
  std::atomic<bool> hasIdleRuns_ = false;
  std::atomic<bool> hasStoreFailed_ = false;

  InMemoryFileManager disk_;
  FaultyFileManager storeFiles_{disk_};
  UserDefaults defaults_{storeFiles_, "/home/Defaults"};
  ManualClock clock_;
  ManualDispatch noQueues_;  ///< the photo library asks nobody for leave
  InMemoryPhotoLibrary photos_{disk_, noQueues_};
  ScriptedURLSessionService transfers_{disk_, "/home/delivered"};
  Step step_{*this, photos_, clock_};
  std::unique_ptr<Disturbance> storeFault_;  ///< of the first page's thread
  std::unique_ptr<CountedDispatch> dispatch_;
  std::unique_ptr<CountedApplication> application_;
  std::shared_ptr<TarnBridge> plugin_;
};

}  // namespace tarn::test
