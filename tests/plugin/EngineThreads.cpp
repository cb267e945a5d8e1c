#include "plugin/EngineThreads.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

#include "download/DocumentsSweep.h"
#include "platform/Log.h"

namespace tarn::test {
namespace {

using Kind = ModelStep::Kind;
using namespace std::chrono_literals;

constexpr const char* address = "http://127.0.0.1/";
constexpr size_t lead = 8;  ///< steps that may be done ahead of one that is not

uint64_t numberOf(const std::string& url) {
  return std::stoull(url.substr(std::char_traits<char>::length(address)));
}

/// No two downloads have the same, so that a file and an asset tell whose they are.
uint64_t sizeOf(uint64_t number) {
  return 100 + number;
}

}  // namespace

std::optional<std::string> EngineThreads::brokenBy(const std::vector<ModelStep>& steps) {
  EngineThreads engine;
  for (auto from = steps.begin();;) {
    const auto to = std::ranges::find(from, steps.end(), Kind::restart, &ModelStep::kind);
    engine.runPhase(std::vector<ModelStep>(from, to));
    if (engine.broken_ || to == steps.end()) break;
    engine.restart();
    from = std::next(to);
  }
  if (!engine.broken_) engine.comeToAnEnd();
  return engine.broken_;
}

EngineThreads::EngineThreads() {
  setLogSink([this](std::string_view line) { require(keepsTheLimit(line), "no more run than the limit allows"); });
  disk_.documentsDirectory(true);
  startProcess();
}

EngineThreads::~EngineThreads() {
  endProcess();
  setLogSink({});
}

// --- Processes ---

void EngineThreads::startProcess() {
  dispatch_ = std::make_unique<CountedDispatch>();
  application_ = std::make_unique<CountedApplication>(*dispatch_);
  ProcessingStateManager store(defaults_, disk_, clock_);
  removeLeftovers(disk_, store);
  plugin_ =
      TarnBridge::create({disk_, defaults_, clock_, *dispatch_, *application_, photos_, transfers_}, {.last = &step_});
  plugin_->setEventListener([this](const std::string& name, const JSObject& data) { hear(name, data); });
  plugin_->load();
  // Transfers whose end the last process did not hear go with the making of the session: not while one is driven.
  plugin_->downloadManager().handleEventsForBackgroundURLSession();
}

/// As a kill does: of the work that has not begun nothing is done.
void EngineThreads::endProcess() {
  dispatch_->stop();
  plugin_.reset();
  application_.reset();
  dispatch_.reset();
}

void EngineThreads::restart() {
  storeFiles_.disarm();
  storeFault_.reset();
  hasIdleRuns_ = true;
  endProcess();
  clock_.advance(5s);  // lest the next process give out the same ids
  for (auto& [id, told] : told_) told.byThisProcess = 0;
  // A kill before a failure was told leaves it in the list, where a page finds it.
  for (auto& [number, download] : downloads_) download.mayStayUntold |= download.mayFail;
  startProcess();
}

// --- Threads ---

EngineThreads::Driver EngineThreads::driverOf(const ModelStep& step) {
  switch (step.kind) {
    case Kind::start:
      return step.argument % 2 ? firstPage : secondPage;
    case Kind::limit:
    case Kind::failStore:
    case Kind::jump:
      return firstPage;
    case Kind::cancel:
    case Kind::cancelAll:
    case Kind::clearAll:
      return secondPage;
    case Kind::hide:
    case Kind::show:
    case Kind::expire:
    case Kind::second:
      return application;
    case Kind::progress:
    case Kind::finish:
    case Kind::complete:
    case Kind::failTransfer:
    case Kind::cancellations:
    case Kind::failRun:
      return transfers;
    default:
      return static_cast<Driver>(step.argument % drivers);
  }
}

void EngineThreads::runPhase(const std::vector<ModelStep>& steps) {
  stepsDone_ = 0;
  std::vector<std::thread> threads;
  for (size_t driver = 0; driver < drivers; ++driver) {
    threads.emplace_back([&, driver] { drive(steps, static_cast<Driver>(driver)); });
  }
  for (std::thread& thread : threads) thread.join();
}

void EngineThreads::drive(const std::vector<ModelStep>& steps, Driver driver) {
  for (size_t at = 0; at < steps.size(); ++at) {
    if (driverOf(steps[at]) != driver) continue;
    {
      std::unique_lock lock(turnMutex_);
      turned_.wait(lock, [&] { return stepsDone_ + lead >= at; });
    }
    perform(steps[at]);
    if (driver == firstPage && storeFault_ && storeFiles_.fired()) {
      storeFiles_.disarm();
      storeFault_.reset();
    }
    std::lock_guard guard(turnMutex_);
    ++stepsDone_;
    turned_.notify_all();
  }
}

void EngineThreads::perform(const ModelStep& step) {
  const uint32_t argument = step.argument;
  switch (step.kind) {
    case Kind::turn:
      plugin_->downloadManager().checkAndResumePendingProcessing();  // which may come at any moment
      break;
    case Kind::settle:
      std::this_thread::sleep_for(1ms);
      break;
    case Kind::second:
      clock_.advance(1s);
      break;
    case Kind::start:
      start(argument);
      break;
    case Kind::cancel:
      cancel(argument);
      break;
    case Kind::cancelAll:
      cancelEverything("cancelAllDownloads");
      break;
    case Kind::clearAll:
      cancelEverything("clearAllStates");
      break;
    case Kind::hide:
      application_->enterBackground();
      break;
    case Kind::show:
      application_->enterForeground();
      break;
    case Kind::expire:
      hasIdleRuns_ = true;
      application_->expireBackgroundTime();
      break;
    case Kind::limit:
      call("setDownloadLimit", {{"limit", static_cast<int64_t>(argument % 12)}});
      break;
    case Kind::progress:
      withTransfer(argument, false, [&](const std::string& url) { transfers_.writeData(url, argument, -1); });
      break;
    case Kind::finish:
      withTransfer(argument, false, [&](const std::string& url) { deliver(url); });
      break;
    case Kind::complete:
      withTransfer(argument, true, [&](const std::string& url) { transfers_.complete(url); });
      break;
    case Kind::failTransfer:
      withTransfer(argument, false, [&](const std::string& url) {
        note(url, [](Download& download) { download.mayFail = true; });
        transfers_.complete(url, URLError(56, "The connection was reset"));
      });
      break;
    case Kind::cancellations:
      transfers_.deliverCancellations();
      break;
    case Kind::failRun:
      runFails_ = true;
      break;
    case Kind::failStore:
      hasStoreFailed_ = true;
      storeFault_.reset();
      storeFault_ = std::make_unique<Disturbance>(*this);
      giveUp(true);
      storeFiles_.arm({.call = 1 + argument % 5, .among = {FileOperation::open, FileOperation::replace}});
      break;
    case Kind::jump: {
      const Disturbance disturbance(*this);
      giveUp(hasIdleRuns_);
      clock_.advance(std::chrono::seconds(86401));
      break;
    }
    case Kind::restart:
      break;  // between two phases
  }
}

void EngineThreads::Step::run(ProcessingRun& run) {
  EngineThreads& engine = engine_;
  const uint64_t number = engine.disk_.attributes(run.fileURL)->size - sizeOf(0);
  const int64_t id = run.state.downloadId;
  engine.require(!engine.isInRun_.exchange(true), "one file is processed at a time", id);
  engine.require(engine.saved(number) == 0, "a file that was saved does not run again", id);
  const Path temp = run.fileURL.parent_path() / (makeUUID() + ".m4a");
  run.state.addTempFile(temp);
  run.updateProcessingStage(ProcessingStage::remuxing);
  writeFileAtomically(engine.disk_, temp, Bytes(1));
  for (uint64_t i = 0; i < number % 4; ++i) std::this_thread::sleep_for(300us);
  engine.isInRun_ = false;
  if (engine.runFails_.exchange(false)) {
    std::lock_guard guard(engine.mutex_);
    engine.downloads_[number].mayFail = true;
    throw Error("Test", -1, "drawn");
  }
  readFile(run.files, run.fileURL);
  SavingStep::run(run);
}

EngineThreads::Disturbance::Disturbance(EngineThreads& engine) : engine_(engine) {
  std::lock_guard guard(engine_.mutex_);
  ++engine_.disturbances_;
  ++engine_.disturbancesNow_;
}

EngineThreads::Disturbance::~Disturbance() {
  std::lock_guard guard(engine_.mutex_);
  --engine_.disturbancesNow_;
}

JSObject EngineThreads::call(const std::string& method, JSObject options) {
  JSObject data;
  plugin_->call(std::make_shared<CAPPluginCall>(method, std::move(options),
                                                [&](const CAPPluginCall::Answer& answer) { data = answer.data; }));
  return data;
}

/// False when new downloads are blocked.
bool EngineThreads::start(uint32_t argument) {
  size_t before = 0;
  bool isDisturbed = false;
  {
    std::lock_guard guard(mutex_);
    before = disturbances_;
    isDisturbed = disturbancesNow_ > 0;
  }
  clock_.advance(1s);
  const uint64_t number = ++starts_;
  const JSObject answer = call("saveVideo", {{"url", address + std::to_string(number)},
                                             {"album", "Trips"},
                                             {"filename", fmt::format("clip{}.mp4", argument % 3)},
                                             {"skipVideoFix", argument % 2 == 0}});
  const JSValue* const id = answer.find("id");
  if (!id) return false;
  std::lock_guard guard(mutex_);
  for (const auto& [other, download] : downloads_) {
    require(download.id != *id->get<int64_t>(), "an id is given out once", download.id);
  }
  Download& download = downloads_[number];  // its transfer may have begun
  download.id = *id->get<int64_t>();
  if (isDisturbed || disturbances_ != before) download.mayBeLost = download.mayStayUntold = true;
  return true;
}

void EngineThreads::cancel(uint32_t argument) {
  int64_t id = 0;
  {
    std::lock_guard guard(mutex_);
    if (downloads_.empty()) return;
    auto& [number, download] = *std::next(downloads_.begin(), argument % static_cast<uint32_t>(downloads_.size()));
    download.mayBeLost = download.mayStayUntold = true;
    id = download.id;
  }
  call("cancel", {{"id", id}});
}

void EngineThreads::cancelEverything(const std::string& method) {
  const Disturbance disturbance(*this);
  giveUp(true);
  call(method);
  giveUp(true);
}

void EngineThreads::giveUp(bool mayBeLost) {
  std::lock_guard guard(mutex_);
  for (auto& [number, download] : downloads_) {
    download.mayBeLost |= mayBeLost;
    download.mayStayUntold = true;
  }
}

/// Chooses among the transfers that run, and whose file was handed over or not.
void EngineThreads::withTransfer(uint32_t argument, bool isDelivered,
                                 const std::function<void(const std::string&)>& work) {
  std::vector<std::string> fitting;
  for (const auto& transfer : transfers_.tasks()) {
    if (transfer->state() != NSURLSessionTaskState::running) continue;
    note(transfer->originalRequestURL(), [&](Download& download) {
      if (download.isDelivered == isDelivered) fitting.push_back(transfer->originalRequestURL());
    });
  }
  if (!fitting.empty()) work(fitting[argument % fitting.size()]);
}

void EngineThreads::deliver(const std::string& url) {
  note(url, [](Download& download) { download.isDelivered = true; });
  transfers_.finish(url, Bytes(sizeOf(numberOf(url))));
}

void EngineThreads::note(const std::string& url, const std::function<void(Download&)>& change) {
  std::lock_guard guard(mutex_);
  change(downloads_[numberOf(url)]);
}

// --- Promises ---

void EngineThreads::require(bool holds, const std::string& promise, int64_t id) {
  if (holds) return;
  std::lock_guard guard(brokenMutex_);
  if (!broken_) broken_ = fmt::format("{} ({})", promise, id);
}

size_t EngineThreads::saved(uint64_t number) {
  return static_cast<size_t>(std::ranges::count(photos_.fetchAllAssets(), sizeOf(number), &PHAsset::size));
}

std::vector<ProcessingState> EngineThreads::pending() {
  return ProcessingStateManager(defaults_, disk_, clock_).allPendingStates().value_or(std::vector<ProcessingState>());
}

void EngineThreads::hear(const std::string& name, const JSObject& data) {
  if (name != "downloadComplete") return;
  const int64_t id = *data.find("id")->get<int64_t>();
  std::lock_guard guard(mutex_);
  Told& told = told_[id];
  require(++told.byThisProcess == 1, "an end is told once", id);
  const bool isSaved = *data.find("status")->get<std::string>() == "STATUS_SUCCESSFUL";
  (isSaved ? told.asSaved : told.asFailed) = true;
}

/// All that can come comes: the page is there, the network works, and nothing is drawn any more.
void EngineThreads::comeToAnEnd() {
  storeFiles_.disarm();
  storeFault_.reset();
  runFails_ = false;
  call("setDownloadLimit", {{"limit", 10}});
  const auto deadline = std::chrono::steady_clock::now() + 1min;
  while (!transfers_.tasks().empty() || !pending().empty()) {
    if (std::chrono::steady_clock::now() > deadline) return require(false, "every transfer and every run ends");
    application_->enterForeground();
    transfers_.deliverCancellations();
    withTransfer(0, false, [&](const std::string& url) { deliver(url); });
    withTransfer(0, true, [&](const std::string& url) { transfers_.complete(url); });
    dispatch_->waitUntilIdle();
  }
  application_->enterForeground();
  require(dispatch_->waitUntilIdle(), "the queues come to rest");
  application_->enterBackground();  // the files that nobody owns are swept
  require(dispatch_->waitUntilIdle(), "the queues come to rest");
  application_->enterForeground();
  require(dispatch_->waitUntilIdle(), "the queues come to rest");
  lookAtRest();
}

void EngineThreads::lookAtRest() {
  for (const auto& [number, download] : downloads_) {
    const Told& told = told_[download.id];
    const size_t times = saved(number);
    require(times <= 1, fmt::format("a video is saved once, not {} times", times), download.id);
    require(!told.asSaved || times == 1, "what is told as saved was saved", download.id);
    require(!told.asFailed || download.mayFail || download.mayBeLost, "nothing fails by itself", download.id);
    require(download.mayFail || download.mayBeLost || times == 1, "every video is saved", download.id);
    require(download.mayStayUntold || told.asSaved || told.asFailed, "every end is told", download.id);
  }
  require(application_->held() == 0, "background time is given back");
  auto left = disk_.contentsOfDirectory(disk_.documentsDirectory(true));
  // While the records cannot be read no file is touched; the next process takes the temp files.
  if (hasStoreFailed_) std::erase_if(left, [](const std::string& name) { return name.ends_with(".m4a"); });
  require(left.empty(), "no file is left without an owner: " + (left.empty() ? "" : left.front()));
  for (uint32_t i = 0; i < 10;) i += start(i) ? 1 : 0;  // the last cancelAll may block them for a moment
  const int64_t waiting = *call("getDownloadLimit").find("queued")->get<int64_t>();
  require(waiting == 0, "every slot is free");
}

}  // namespace tarn::test
