#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/memory/InMemoryFileManager.h"
#include "platform/memory/InMemoryPhotoLibrary.h"
#include "platform/memory/ManualDispatch.h"
#include "platform/memory/ScriptedURLSession.h"
#include "plugin/CountedApplication.h"
#include "plugin/SavingStep.h"
#include "plugin/TarnBridgePlugin.h"
#include "support/FaultyFileManager.h"
#include "support/ManualClock.h"

namespace tarn::test {

/// Something that happens to the engine. What the argument chooses depends on the kind.
struct ModelStep {
  enum class Kind {
    turn,  ///< one piece of work of one of the queues
    settle,
    second,
    start,
    cancel,
    cancelAll,
    clearAll,
    hide,
    show,
    expire,
    limit,
    progress,
    finish,
    complete,
    failTransfer,
    cancellations,
    failRun,
    failStore,
    jump,
    restart,
  };
  Kind kind;
  uint32_t argument;
};

std::string text(const std::vector<ModelStep>& steps);
std::vector<ModelStep> drawSteps(uint32_t seed, size_t count);

/// False for a line of the log that tells of more running downloads than the limit allows.
bool keepsTheLimit(std::string_view line);

/// The real engine with its plug-in on a platform in memory, beside what it promises: it does the steps one by one,
/// some of them in the middle of a run, and looks after each whether the promises hold.
class EngineModel {
 public:
  /// Does all the steps, and then lets everything come to its end. The first promise that was broken; nothing when all
  /// were kept.
  static std::optional<std::string> brokenBy(const std::vector<ModelStep>& steps);

  ~EngineModel();
  EngineModel(const EngineModel&) = delete;
  EngineModel& operator=(const EngineModel&) = delete;

 private:
  /// What the engine owes to one download.
  struct Download {
    std::string url;
    uint64_t size = 0;         ///< of its file; no two are equal, so that an asset tells whose it is
    bool isDelivered = false;  ///< its file was handed over
    bool mayFail = false;      ///< a failure was drawn for it
    bool isCancelled = false;
    bool mayStayUntold = false;  ///< the page gave it up, if only after it was saved
    bool hadEnded = false;       ///< when it was cancelled: that may still be told
    bool isExcused = false;      ///< a store failed meanwhile, or the clock jumped: all that holds is that it runs once
    int toldByThisProcess = 0;
    int told = 0;
  };

  /// The last step of a run, in whose middle other things happen.
  class Step : public SavingStep {
   public:
    Step(EngineModel& model, PHPhotoLibrary& photos, const Clock& clock) : SavingStep(photos, clock), model_(model) {}
    void run(ProcessingRun& run) override;

   private:
    EngineModel& model_;
  };

  explicit EngineModel(const std::vector<ModelStep>& steps);

  void startProcess();
  void endProcess();
  void doNext();
  void perform(const ModelStep& step);
  void comeToAnEnd();

  JSObject call(const std::string& method, JSObject options = {});
  void start(uint32_t argument);
  void cancel(uint32_t argument);
  void cancelEverything(const std::string& method);
  void withTransfer(uint32_t argument, bool isDelivered, const std::function<void(Download&)>& work);
  void excuse();
  void restart();

  void hear(const std::string& name, const JSObject& data);
  void look();
  void lookAtRest();
  void require(bool holds, const std::string& promise, int64_t id = 0);
  size_t saved(const Download& download);
  std::vector<ProcessingState> pending();

  const std::vector<ModelStep>& steps_;
  size_t next_ = 0;
  bool isInRun_ = false;
  bool runFails_ = false;
  bool hasIdleRuns_ = false;  ///< there may be stored runs that nobody works on
  bool hasStoreFailed_ = false;
  std::optional<std::string> broken_;
  std::map<int64_t, Download> downloads_;
  std::map<int64_t, RunOutcome> outcomes_;  ///< that this process has told, the last of each download
  uint64_t starts_ = 0;

  InMemoryFileManager disk_;
  FaultyFileManager storeFiles_{disk_};
  UserDefaults defaults_{storeFiles_, "/home/Defaults"};
  ManualClock clock_;
  ManualDispatch dispatch_;
  std::unique_ptr<CountedApplication> application_;
  InMemoryPhotoLibrary photos_{disk_, dispatch_};
  ScriptedURLSessionService transfers_{disk_, "/home/delivered"};
  Step step_{*this, photos_, clock_};
  std::shared_ptr<TarnBridge> plugin_;
};

}  // namespace tarn::test
