#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/host/HostApplication.h"
#include "platform/memory/InMemoryFileManager.h"
#include "platform/memory/InMemoryPhotoLibrary.h"
#include "platform/memory/ManualDispatch.h"
#include "platform/memory/ScriptedURLSession.h"
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
/// The environment may ask for another number.
uint32_t numberFrom(const char* name, uint32_t usual);

/// Counts the background time that was given out and not given back.
class CountedApplication : public HostApplication {
 public:
  using HostApplication::HostApplication;

  UIBackgroundTaskIdentifier beginBackgroundTask(const std::string& name, std::function<void()> expiration) override {
    const auto task = HostApplication::beginBackgroundTask(name, std::move(expiration));
    std::lock_guard guard(mutex_);
    if (task != UIBackgroundTaskInvalid) held_.insert(task);
    return task;
  }
  void endBackgroundTask(UIBackgroundTaskIdentifier task) override {
    HostApplication::endBackgroundTask(task);
    std::lock_guard guard(mutex_);
    held_.erase(task);
  }

  size_t held() {
    std::lock_guard guard(mutex_);
    return held_.size();
  }

 private:
  std::mutex mutex_;
  std::set<UIBackgroundTaskIdentifier> held_;
};

/// The real engine with its plug-in on a platform in memory, what happens to it, and what it owes to each download. It
/// may be called from several threads.
class EngineDriver : protected DownloadListener {
 public:
  EngineDriver(const EngineDriver&) = delete;
  EngineDriver& operator=(const EngineDriver&) = delete;

 protected:
  /// What the engine owes to one download, which is known by the number in its URL. Its file's size tells the number.
  struct Download {
    int64_t id = 0;
    bool isDelivered = false;  ///< its file was handed over
    bool mayFail = false;      ///< a failure was drawn for it
    /// A store failed meanwhile, or it lay idle for a day, or nobody knows if it was cancelled.
    bool mayBeLost = false;
    bool mayStayUntold = false;  ///< the page gave it up, if only after it was saved
    bool isCancelled = false;
    bool hadEnded = false;  ///< when it was cancelled: that may still be told
  };
  /// What the page heard of one id.
  struct Told {
    int byThisProcess = 0;
    bool asSaved = false;
    bool asFailed = false;
  };

  EngineDriver();
  ~EngineDriver() override;

  void openProcess(Dispatch& dispatch);
  virtual void startProcess() = 0;
  virtual void endProcess() = 0;
  void restart();

  /// Nothing happens at a turn, a rest or a new start: these each driver has of its own.
  virtual void perform(const ModelStep& step);
  virtual void inTheMiddleOfARun(uint64_t number) = 0;
  virtual void cancel(uint64_t number, int64_t id) = 0;
  virtual void cancelEverything(const std::string& method) = 0;
  virtual void heard(int64_t /*id*/, bool /*isSaved*/) {}
  void began(int64_t /*id*/, const DownloadRequest& /*request*/) noexcept override {}
  void ended(const RunOutcome& /*outcome*/) noexcept override {}
  /// The listener heard of its begin, and of no end.
  virtual bool isOpen(int64_t /*id*/) { return false; }
  virtual void letTimePass() = 0;
  virtual bool isLate(int round) = 0;

  JSObject call(const std::string& method, JSObject options = {});
  virtual std::optional<uint64_t> start(uint32_t argument);
  void withTransfer(uint32_t argument, bool isDelivered, const std::function<void(const std::string& url)>& work);
  void deliver(const std::string& url);
  void note(uint64_t number, const std::function<void(Download&)>& change);
  void giveUp(bool mayBeLost);

  void letAllEnd();
  /// Lets all end, holds every promise against what has come, and begins ten downloads more.
  void comeToAnEnd();
  void require(bool holds, const std::string& promise, int64_t id = 0);
  size_t saved(uint64_t number);
  std::vector<ProcessingState> pending();

  std::mutex brokenMutex_;  // a leaf: the log asks for it under every lock
  std::optional<std::string> broken_;

  std::mutex mutex_;  // guards the two below; never held while the engine is called
  std::map<uint64_t, Download> downloads_;
  std::map<int64_t, Told> told_;

  std::atomic<bool> hasIdleRuns_ = false;  ///< there may be stored runs that nobody works on
  std::atomic<bool> isInRun_ = false;

  InMemoryFileManager disk_;
  FaultyFileManager storeFiles_{disk_};
  ManualClock clock_;
  ManualDispatch dispatch_;
  std::unique_ptr<CountedApplication> application_;
  InMemoryPhotoLibrary photos_{disk_, dispatch_};
  ScriptedURLSessionService transfers_{disk_, "/home/delivered"};
  std::shared_ptr<TarnBridge> plugin_;

 private:
  /// The last step of a run, in whose middle other things happen.
  class Step : public SavingStep {
   public:
    Step(EngineDriver& driver, PHPhotoLibrary& photos, const Clock& clock)
        : SavingStep(photos, clock), driver_(driver) {}
    void run(ProcessingRun& run) override;

   private:
    EngineDriver& driver_;
  };

  void cancelOne(uint32_t argument);
  void hear(const std::string& name, const JSObject& data);
  void lookAtRest();

  std::atomic<uint64_t> starts_ = 0;
  std::atomic<bool> runFails_ = false;
  std::atomic<bool> hasStoreFailed_ = false;
  UserDefaults defaults_{storeFiles_, "/home/Defaults"};
  Step step_{*this, photos_, clock_};
};

}  // namespace tarn::test
