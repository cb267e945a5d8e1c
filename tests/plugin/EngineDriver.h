#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "download/DocumentsSweep.h"
#include "platform/Log.h"
#include "platform/host/HostApplication.h"
#include "platform/memory/InMemoryFileManager.h"
#include "platform/memory/InMemoryPhotoLibrary.h"
#include "platform/memory/ManualDispatch.h"
#include "platform/memory/ScriptedURLSession.h"
#include "plugin/SavingStep.h"
#include "plugin/TarnBridgePlugin.h"
#include "support/FaultyFileManager.h"
#include "support/ManualClock.h"
#include "support/NumberFrom.h"

namespace tarn::test {

/// Something that happens to the engine. What the argument chooses depends on the kind.
struct ModelStep {
  std::string_view kind;
  uint32_t argument;
};

inline std::string text(const std::vector<ModelStep>& steps) {
  std::string words;
  for (const ModelStep& step : steps) words += fmt::format("{} {}, ", step.kind, step.argument);
  return words;
}

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
  ~EngineDriver() override { setLogSink({}); }

  static std::vector<ModelStep> drawSteps(uint32_t seed, size_t count) {
    std::mt19937 random(seed);
    uint32_t total = 0;
    for (const Row& row : rows) total += row.weight;
    std::vector<ModelStep> steps;
    while (steps.size() < count) {
      uint32_t drawn = static_cast<uint32_t>(random() % total);
      const Row* row = rows;
      while (drawn >= row->weight) drawn -= (row++)->weight;
      steps.push_back({row->kind, static_cast<uint32_t>(random() % 1000)});
    }
    return steps;
  }

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

  /// Who does a step where there are threads; `threads` stands for any of them.
  enum Thread : size_t { firstPage, secondPage, application, transfers, threads };
  /// A kind of steps.
  struct Row {
    std::string_view kind;
    uint32_t weight;
    Thread thread;
    void (*act)(EngineDriver& driver, uint32_t argument);
  };

  EngineDriver() {
    setLogSink([this](std::string_view line) {
      require(keepsTheLimit(line), "no more run than the limit allows: " + std::string(line));
    });
    disk_.documentsDirectory(true);
  }

  static const Row& rowOf(const ModelStep& step) { return *std::ranges::find(rows, step.kind, &Row::kind); }

  void openProcess(Dispatch& dispatch, FileManager& files) {
    application_ = std::make_unique<CountedApplication>(dispatch);
    ProcessingStateManager store(defaults_, disk_, clock_);
    removeLeftovers(disk_, store);
    plugin_ = TarnBridge::create({files, defaults_, clock_, dispatch, *application_, photos_, transfers_},
                                 {.last = &step_}, this);
    plugin_->setEventListener([this](const std::string& name, const JSObject& data) { hear(name, data); });
    plugin_->load();
  }

  virtual void startProcess() = 0;
  virtual void endProcess() = 0;

  void restart() {
    storeFiles_.disarm();
    hasIdleRuns_ = true;
    endProcess();
    clock_.advance(std::chrono::seconds(5));  // lest the next process give out the same ids
    for (auto& [id, told] : told_) told.byThisProcess = 0;
    // A kill before a failure was told leaves it in the list, where a page finds it.
    for (auto& [number, download] : downloads_) download.mayStayUntold |= download.mayFail;
    startProcess();
  }

  /// Nothing happens at a turn, a rest or a new start: these each driver has of its own.
  virtual void perform(const ModelStep& step) { rowOf(step).act(*this, step.argument); }

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

  JSObject call(const std::string& method, JSObject options = {}) {
    JSObject data;
    plugin_->call(std::make_shared<CAPPluginCall>(method, std::move(options),
                                                  [&](const CAPPluginCall::Answer& answer) { data = answer.data; }));
    return data;
  }

  /// The number of the download; nothing when new ones are blocked.
  virtual std::optional<uint64_t> start(uint32_t argument) {
    clock_.advance(std::chrono::seconds(1));  // lest the next process give out the same id
    const uint64_t number = ++starts_;
    const JSObject answer = call("saveVideo", {{"url", address + std::to_string(number)},
                                               {"album", "Trips"},
                                               {"filename", fmt::format("clip{}.mp4", argument % 3)},
                                               {"skipVideoFix", argument % 2 == 0}});
    const JSValue* const id = answer.find("id");
    if (!id) return {};
    std::lock_guard guard(mutex_);
    for (const auto& [other, download] : downloads_) {
      require(download.id != *id->get<int64_t>(), "an id is given out once", download.id);
    }
    downloads_[number].id = *id->get<int64_t>();  // its transfer may have begun
    return number;
  }

  /// Chooses among the transfers that run, and whose file was handed over or not.
  void withTransfer(uint32_t argument, bool isDelivered, const std::function<void(const std::string&)>& work) {
    std::vector<std::string> fitting;
    for (const auto& transfer : transfers_.tasks()) {
      if (transfer->state() != NSURLSessionTaskState::running) continue;
      note(numberOf(transfer->originalRequestURL()), [&](Download& download) {
        if (download.isDelivered == isDelivered) fitting.push_back(transfer->originalRequestURL());
      });
    }
    if (!fitting.empty()) work(fitting[argument % fitting.size()]);
  }

  void deliver(const std::string& url) {
    note(numberOf(url), [](Download& download) { download.isDelivered = true; });
    transfers_.finish(url, Bytes(sizeOf(numberOf(url))));
  }

  void note(uint64_t number, const std::function<void(Download&)>& change) {
    std::lock_guard guard(mutex_);
    change(downloads_[number]);
  }

  void giveUp(bool mayBeLost) {
    std::lock_guard guard(mutex_);
    for (auto& [number, download] : downloads_) {
      download.mayBeLost |= mayBeLost;
      download.mayStayUntold = true;
    }
  }

  /// All that can come comes: the page is there, the network works, and nothing is drawn any more.
  void letAllEnd() {
    storeFiles_.disarm();
    runFails_ = false;
    call("setDownloadLimit", {{"limit", 10}});
    for (int round = 0; round < 3 || !transfers_.tasks().empty() || !pending().empty(); ++round) {
      if (isLate(round)) return require(false, "every transfer and every run ends");
      application_->enterForeground();
      transfers_.deliverCancellations();
      withTransfer(0, false, [&](const std::string& url) { deliver(url); });
      withTransfer(0, true, [&](const std::string& url) { transfers_.complete(url); });
      letTimePass();
    }
    application_->enterBackground();  // the files that nobody owns are swept
    letTimePass();
    application_->enterForeground();
    letTimePass();
  }

  /// Lets all end, holds every promise against what has come, and begins ten downloads more.
  void comeToAnEnd() {
    letAllEnd();
    for (const auto& [number, download] : downloads_) {
      const Told& told = told_[download.id];
      const size_t times = saved(number);
      const bool mayBeMissing = download.mayFail || download.mayBeLost || download.isCancelled;
      require(times <= 1, fmt::format("a video is saved once, not {} times", times), download.id);
      require(!told.asSaved || times == 1, "what is told as saved was saved", download.id);
      require(!told.asFailed || mayBeMissing, "nothing fails by itself", download.id);
      require(times == 1 || mayBeMissing, "every video is saved", download.id);
      require(download.mayStayUntold || told.asSaved || told.asFailed, "every end is told", download.id);
      require(!isOpen(download.id) || download.mayBeLost, "the listener hears of each end", download.id);
    }
    require(application_->held() == 0, "background time is given back");
    auto left = disk_.contentsOfDirectory(disk_.documentsDirectory(true));
    // While the records cannot be read no file is touched; the next process takes the temp files.
    if (hasStoreFailed_) std::erase_if(left, [](const std::string& name) { return name.ends_with(".m4a"); });
    require(left.empty(), "no file is left without an owner: " + (left.empty() ? "" : left.front()));
    for (uint32_t begun = 0, round = 0; begun < 10; ++round) {  // the last cancelAll may block them for a moment
      if (isLate(static_cast<int>(round))) return require(false, "new downloads may begin");
      if (start(begun))
        ++begun;
      else
        letTimePass();
    }
    const int64_t waiting = *call("getDownloadLimit").find("queued")->get<int64_t>();
    require(waiting == 0, "every slot is free");
  }

  void require(bool holds, const std::string& promise, int64_t id = 0) {
    if (holds) return;
    std::lock_guard guard(brokenMutex_);
    if (!broken_) broken_ = fmt::format("{} ({})", promise, id);
  }

  size_t saved(uint64_t number) {
    return static_cast<size_t>(std::ranges::count(photos_.fetchAllAssets(), sizeOf(number), &PHAsset::size));
  }

  std::vector<ProcessingState> pending() {
    return ProcessingStateManager(defaults_, disk_, clock_).allPendingStates().value_or(std::vector<ProcessingState>());
  }

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
  static constexpr const char* address = "http://127.0.0.1/";

  static uint64_t numberOf(const std::string& url) {
    return std::stoull(url.substr(std::char_traits<char>::length(address)));
  }

  /// No two downloads have the same, so that a file and an asset tell whose they are.
  static uint64_t sizeOf(uint64_t number) { return 100 + number; }

  /// False for a line of the log that tells of more running downloads than the limit allows.
  static bool keepsTheLimit(std::string_view line) {
    const size_t counts = line.rfind("(running: ");
    if (counts == std::string_view::npos) return true;
    int running = 0, limit = 0;
    const char* const end = line.data() + line.size();
    const auto first = std::from_chars(line.data() + counts + 10, end, running);
    std::from_chars(first.ptr + 1, end, limit);
    return running >= 1 && running <= limit;
  }

  /// The last step of a run, in whose middle other things happen.
  class Step : public SavingStep {
   public:
    Step(EngineDriver& driver, PHPhotoLibrary& photos, const Clock& clock)
        : SavingStep(photos, clock), driver_(driver) {}
    void run(ProcessingRun& run) override {
      const uint64_t number = readFile(run.files, run.fileURL).size() - sizeOf(0);
      const int64_t id = run.state.downloadId;
      driver_.require(!driver_.isInRun_.exchange(true), "one file is processed at a time", id);
      driver_.require(driver_.saved(number) == 0, "a file that was saved does not run again", id);
      const Path temp = run.fileURL.parent_path() / (makeUUID() + ".m4a");
      run.state.addTempFile(temp);
      run.updateProcessingStage(ProcessingStage::remuxing);
      writeFileAtomically(driver_.disk_, temp, Bytes(1));
      driver_.inTheMiddleOfARun(number);
      driver_.isInRun_ = false;
      if (driver_.runFails_.exchange(false)) {
        driver_.note(number, [](Download& download) { download.mayFail = true; });
        throw Error("Test", -1, "drawn");
      }
      readFile(run.files, run.fileURL);
      SavingStep::run(run);
    }

   private:
    EngineDriver& driver_;
  };

  static const Row rows[20];

  void cancelOne(uint32_t argument) {
    std::unique_lock lock(mutex_);
    if (downloads_.empty()) return;
    const auto chosen = std::next(downloads_.begin(), argument % static_cast<uint32_t>(downloads_.size()));
    const uint64_t number = chosen->first;
    const int64_t id = chosen->second.id;
    lock.unlock();
    cancel(number, id);
  }

  void hear(const std::string& name, const JSObject& data) {
    if (name != "downloadComplete") return;
    const int64_t id = *data.find("id")->get<int64_t>();
    const bool isSaved = *data.find("status")->get<std::string>() == "STATUS_SUCCESSFUL";
    std::lock_guard guard(mutex_);
    Told& told = told_[id];
    require(++told.byThisProcess == 1, "an end is told once", id);
    (isSaved ? told.asSaved : told.asFailed) = true;
    heard(id, isSaved);
  }

  std::atomic<uint64_t> starts_ = 0;
  std::atomic<bool> runFails_ = false;
  std::atomic<bool> hasStoreFailed_ = false;
  UserDefaults defaults_{storeFiles_, "/home/Defaults"};
  Step step_{*this, photos_, clock_};
};

inline const EngineDriver::Row EngineDriver::rows[20] = {
    {"turn", 60, threads, [](EngineDriver&, uint32_t) {}},
    {"settle", 8, threads, [](EngineDriver&, uint32_t) {}},
    {"second", 6, application, [](EngineDriver& it, uint32_t) { it.clock_.advance(std::chrono::seconds(1)); }},
    {"start", 24, threads, [](EngineDriver& it, uint32_t n) { it.start(n); }},
    {"cancel", 8, secondPage, [](EngineDriver& it, uint32_t n) { it.cancelOne(n); }},
    {"cancelAll", 2, secondPage, [](EngineDriver& it, uint32_t) { it.cancelEverything("cancelAllDownloads"); }},
    {"clearAll", 2, secondPage, [](EngineDriver& it, uint32_t) { it.cancelEverything("clearAllStates"); }},
    {"hide", 8, application, [](EngineDriver& it, uint32_t) { it.application_->enterBackground(); }},
    {"show", 10, application, [](EngineDriver& it, uint32_t) { it.application_->enterForeground(); }},
    {"expire", 5, application,
     [](EngineDriver& it, uint32_t) {
       it.hasIdleRuns_ = true;
       it.application_->expireBackgroundTime();
     }},
    {"limit", 4, firstPage,
     [](EngineDriver& it, uint32_t n) {
       it.call("setDownloadLimit", {{"limit", static_cast<int64_t>(n % 12)}});
     }},
    {"progress", 4, transfers,
     [](EngineDriver& it, uint32_t n) {
       it.withTransfer(n, false, [&](auto& url) { it.transfers_.writeData(url, n, -1); });
     }},
    {"finish", 24, transfers,
     [](EngineDriver& it, uint32_t n) { it.withTransfer(n, false, [&](auto& url) { it.deliver(url); }); }},
    {"complete", 18, transfers,
     [](EngineDriver& it, uint32_t n) { it.withTransfer(n, true, [&](auto& url) { it.transfers_.complete(url); }); }},
    {"failTransfer", 4, transfers,
     [](EngineDriver& it, uint32_t n) {
       it.withTransfer(n, false, [&](auto& url) {
         it.note(numberOf(url), [](Download& download) { download.mayFail = true; });
         it.transfers_.complete(url, URLError(56, "The connection was reset"));
       });
     }},
    {"cancellations", 5, transfers, [](EngineDriver& it, uint32_t) { it.transfers_.deliverCancellations(); }},
    {"failRun", 3, transfers, [](EngineDriver& it, uint32_t) { it.runFails_ = true; }},
    {"failStore", 2, firstPage,
     [](EngineDriver& it, uint32_t n) {
       it.hasStoreFailed_ = true;
       it.giveUp(true);
       it.storeFiles_.arm({.call = 1 + n % 5, .among = {FileOperation::open, FileOperation::replace}});
     }},
    {"jump", 2, firstPage,
     [](EngineDriver& it, uint32_t) {
       // What was interrupted and lies idle for a day is given up; what ended a day after it began may leave the list
       // before the page looks.
       it.giveUp(it.hasIdleRuns_);
       it.clock_.advance(std::chrono::seconds(86401));
     }},
    {"restart", 4, threads, [](EngineDriver&, uint32_t) {}},
};

}  // namespace tarn::test
