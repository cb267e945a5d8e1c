#include "plugin/EngineDriver.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <random>

#include "download/DocumentsSweep.h"
#include "platform/Log.h"

namespace tarn::test {
namespace {

using Kind = ModelStep::Kind;

struct Row {
  Kind kind;
  const char* name;
  int weight;
};
constexpr Row rows[] = {
    {Kind::turn, "turn", 60},
    {Kind::settle, "settle", 8},
    {Kind::second, "second", 6},
    {Kind::start, "start", 24},
    {Kind::cancel, "cancel", 8},
    {Kind::cancelAll, "cancelAll", 2},
    {Kind::clearAll, "clearAll", 2},
    {Kind::hide, "hide", 8},
    {Kind::show, "show", 10},
    {Kind::expire, "expire", 5},
    {Kind::limit, "limit", 4},
    {Kind::progress, "progress", 4},
    {Kind::finish, "finish", 24},
    {Kind::complete, "complete", 18},
    {Kind::failTransfer, "failTransfer", 4},
    {Kind::cancellations, "cancellations", 5},
    {Kind::failRun, "failRun", 3},
    {Kind::failStore, "failStore", 2},
    {Kind::jump, "jump", 2},
    {Kind::restart, "restart", 4},
};

const Row& rowOf(Kind kind) {
  return *std::ranges::find(rows, kind, &Row::kind);
}

constexpr const char* address = "http://127.0.0.1/";

uint64_t numberOf(const std::string& url) {
  return std::stoull(url.substr(std::char_traits<char>::length(address)));
}

/// No two downloads have the same, so that a file and an asset tell whose they are.
uint64_t sizeOf(uint64_t number) {
  return 100 + number;
}

/// False for a line of the log that tells of more running downloads than the limit allows.
bool keepsTheLimit(std::string_view line) {
  const size_t counts = line.rfind("(running: ");
  if (counts == std::string_view::npos) return true;
  int running = 0, limit = 0;
  const char* const end = line.data() + line.size();
  const auto first = std::from_chars(line.data() + counts + 10, end, running);
  std::from_chars(first.ptr + 1, end, limit);
  return running >= 1 && running <= limit;
}

}  // namespace

uint32_t numberFrom(const char* name, uint32_t usual) {
  const char* const given = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nobody sets it
  return given ? static_cast<uint32_t>(std::stoul(given)) : usual;
}

std::string text(const std::vector<ModelStep>& steps) {
  std::string words;
  for (const ModelStep& step : steps) words += fmt::format("{} {}, ", rowOf(step.kind).name, step.argument);
  return words;
}

std::vector<ModelStep> drawSteps(uint32_t seed, size_t count) {
  std::mt19937 random(seed);
  int total = 0;
  for (const Row& row : rows) total += row.weight;
  std::vector<ModelStep> steps;
  while (steps.size() < count) {
    int drawn = static_cast<int>(random() % static_cast<uint32_t>(total));
    const Row* row = rows;
    while (drawn >= row->weight) drawn -= (row++)->weight;
    steps.push_back({row->kind, static_cast<uint32_t>(random() % 1000)});
  }
  return steps;
}

EngineDriver::EngineDriver() {
  setLogSink([this](std::string_view line) {
    require(keepsTheLimit(line), "no more run than the limit allows: " + std::string(line));
  });
  disk_.documentsDirectory(true);
}

EngineDriver::~EngineDriver() {
  setLogSink({});
}

// --- Processes ---

void EngineDriver::openProcess(Dispatch& dispatch) {
  application_ = std::make_unique<CountedApplication>(dispatch);
  ProcessingStateManager store(defaults_, disk_, clock_);
  removeLeftovers(disk_, store);
  plugin_ = TarnBridge::create({disk_, defaults_, clock_, dispatch, *application_, photos_, transfers_},
                               {.last = &step_}, this);
  plugin_->setEventListener([this](const std::string& name, const JSObject& data) { hear(name, data); });
  plugin_->load();
}

void EngineDriver::restart() {
  storeFiles_.disarm();
  hasIdleRuns_ = true;
  endProcess();
  clock_.advance(std::chrono::seconds(5));  // lest the next process give out the same ids
  for (auto& [id, told] : told_) told.byThisProcess = 0;
  // A kill before a failure was told leaves it in the list, where a page finds it.
  for (auto& [number, download] : downloads_) download.mayStayUntold |= download.mayFail;
  startProcess();
}

// --- Steps ---

void EngineDriver::perform(const ModelStep& step) {
  const uint32_t argument = step.argument;
  switch (step.kind) {
    case Kind::turn:
    case Kind::settle:
    case Kind::restart:
      break;
    case Kind::second:
      clock_.advance(std::chrono::seconds(1));
      break;
    case Kind::start:
      start(argument);
      break;
    case Kind::cancel:
      cancelOne(argument);
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
        note(numberOf(url), [](Download& download) { download.mayFail = true; });
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
      giveUp(true);
      storeFiles_.arm({.call = 1 + argument % 5, .among = {FileOperation::open, FileOperation::replace}});
      break;
    case Kind::jump:
      // What was interrupted and lies idle for a day is given up; what ended a day after it began may leave the list
      // before the page looks.
      giveUp(hasIdleRuns_);
      clock_.advance(std::chrono::seconds(86401));
      break;
  }
}

void EngineDriver::Step::run(ProcessingRun& run) {
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

JSObject EngineDriver::call(const std::string& method, JSObject options) {
  JSObject data;
  plugin_->call(std::make_shared<CAPPluginCall>(method, std::move(options),
                                                [&](const CAPPluginCall::Answer& answer) { data = answer.data; }));
  return data;
}

/// The number of the download; nothing when new ones are blocked.
std::optional<uint64_t> EngineDriver::start(uint32_t argument) {
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

void EngineDriver::cancelOne(uint32_t argument) {
  std::unique_lock lock(mutex_);
  if (downloads_.empty()) return;
  const auto chosen = std::next(downloads_.begin(), argument % static_cast<uint32_t>(downloads_.size()));
  const uint64_t number = chosen->first;
  const int64_t id = chosen->second.id;
  lock.unlock();
  cancel(number, id);
}

/// Chooses among the transfers that run, and whose file was handed over or not.
void EngineDriver::withTransfer(uint32_t argument, bool isDelivered,
                                const std::function<void(const std::string&)>& work) {
  std::vector<std::string> fitting;
  for (const auto& transfer : transfers_.tasks()) {
    if (transfer->state() != NSURLSessionTaskState::running) continue;
    note(numberOf(transfer->originalRequestURL()), [&](Download& download) {
      if (download.isDelivered == isDelivered) fitting.push_back(transfer->originalRequestURL());
    });
  }
  if (!fitting.empty()) work(fitting[argument % fitting.size()]);
}

void EngineDriver::deliver(const std::string& url) {
  note(numberOf(url), [](Download& download) { download.isDelivered = true; });
  transfers_.finish(url, Bytes(sizeOf(numberOf(url))));
}

void EngineDriver::note(uint64_t number, const std::function<void(Download&)>& change) {
  std::lock_guard guard(mutex_);
  change(downloads_[number]);
}

void EngineDriver::giveUp(bool mayBeLost) {
  std::lock_guard guard(mutex_);
  for (auto& [number, download] : downloads_) {
    download.mayBeLost |= mayBeLost;
    download.mayStayUntold = true;
  }
}

// --- Promises ---

void EngineDriver::require(bool holds, const std::string& promise, int64_t id) {
  if (holds) return;
  std::lock_guard guard(brokenMutex_);
  if (!broken_) broken_ = fmt::format("{} ({})", promise, id);
}

size_t EngineDriver::saved(uint64_t number) {
  return static_cast<size_t>(std::ranges::count(photos_.fetchAllAssets(), sizeOf(number), &PHAsset::size));
}

std::vector<ProcessingState> EngineDriver::pending() {
  return ProcessingStateManager(defaults_, disk_, clock_).allPendingStates().value_or(std::vector<ProcessingState>());
}

void EngineDriver::hear(const std::string& name, const JSObject& data) {
  if (name != "downloadComplete") return;
  const int64_t id = *data.find("id")->get<int64_t>();
  const bool isSaved = *data.find("status")->get<std::string>() == "STATUS_SUCCESSFUL";
  std::lock_guard guard(mutex_);
  Told& told = told_[id];
  require(++told.byThisProcess == 1, "an end is told once", id);
  (isSaved ? told.asSaved : told.asFailed) = true;
  heard(id, isSaved);
}

/// All that can come comes: the page is there, the network works, and nothing is drawn any more.
void EngineDriver::letAllEnd() {
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

void EngineDriver::comeToAnEnd() {
  letAllEnd();
  lookAtRest();
}

void EngineDriver::lookAtRest() {
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

}  // namespace tarn::test
