#include "plugin/EngineModel.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <random>
#include <set>

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

int64_t idOf(const JSObject& object) {
  const JSValue* const id = object.find("id");
  return id ? *id->get<int64_t>() : 0;
}

}  // namespace

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

bool keepsTheLimit(std::string_view line) {
  const size_t counts = line.rfind("(running: ");
  if (counts == std::string_view::npos) return true;
  int running = 0, limit = 0;
  const char* const end = line.data() + line.size();
  const auto first = std::from_chars(line.data() + counts + 10, end, running);
  std::from_chars(first.ptr + 1, end, limit);
  return running >= 1 && running <= limit;
}

std::optional<std::string> EngineModel::brokenBy(const std::vector<ModelStep>& steps) {
  EngineModel model(steps);
  while (!model.broken_ && model.next_ < steps.size()) model.doNext();
  if (!model.broken_) model.comeToAnEnd();
  return model.broken_;
}

EngineModel::EngineModel(const std::vector<ModelStep>& steps) : steps_(steps) {
  setLogSink([this](std::string_view line) {
    require(keepsTheLimit(line), "no more run than the limit allows: " + std::string(line));
  });
  disk_.documentsDirectory(true);
  startProcess();
}

EngineModel::~EngineModel() {
  endProcess();
  setLogSink({});
}

// --- Processes ---

void EngineModel::startProcess() {
  outcomes_.clear();
  for (auto& [id, download] : downloads_) download.toldByThisProcess = 0;
  application_ = std::make_unique<CountedApplication>(dispatch_);
  ProcessingStateManager store(defaults_, disk_, clock_);
  removeLeftovers(disk_, store);
  plugin_ =
      TarnBridge::create({disk_, defaults_, clock_, dispatch_, *application_, photos_, transfers_}, {.last = &step_},
                         [this](const RunOutcome& outcome) { outcomes_.insert_or_assign(outcome.id, outcome); });
  plugin_->setEventListener([this](const std::string& name, const JSObject& data) { hear(name, data); });
  plugin_->load();
  if (!transfers_.storedTaskDescriptions().empty()) plugin_->downloadManager().handleEventsForBackgroundURLSession();
}

void EngineModel::endProcess() {
  plugin_.reset();
  dispatch_.runUntilIdle();  // nobody is there to do it for
}

void EngineModel::restart() {
  // Until its removal is stored, a kill undoes a cancel.
  const JSObject listed = call("getActiveDownloads");
  for (auto& [id, download] : downloads_) {
    // A kill before a failure was told leaves it in the list, where a page finds it.
    if (download.mayFail) download.mayStayUntold = true;
    if (!download.isCancelled || !listed.find(std::to_string(id))) continue;
    download.isCancelled = false;
    download.isExcused = true;
  }
  storeFiles_.disarm();
  hasIdleRuns_ = true;
  endProcess();
  startProcess();
}

// --- Steps ---

void EngineModel::doNext() {
  if (next_ == steps_.size()) return;
  perform(steps_[next_++]);
  look();
}

void EngineModel::perform(const ModelStep& step) {
  const uint32_t argument = step.argument;
  switch (step.kind) {
    case Kind::turn:
      dispatch_.runOne([&](size_t count) { return argument % count; });
      break;
    case Kind::settle:
      dispatch_.runUntilIdle();
      break;
    case Kind::second:
      clock_.advance(std::chrono::seconds(1));
      dispatch_.advance(std::chrono::seconds(1));
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
      withTransfer(argument, false, [&](Download& download) { transfers_.writeData(download.url, argument, -1); });
      break;
    case Kind::finish:
      withTransfer(argument, false, [&](Download& download) {
        download.isDelivered = true;
        transfers_.finish(download.url, Bytes(download.size));
      });
      break;
    case Kind::complete:
      withTransfer(argument, true, [&](Download& download) { transfers_.complete(download.url); });
      break;
    case Kind::failTransfer:
      withTransfer(argument, false, [&](Download& download) {
        download.mayFail = true;
        transfers_.complete(download.url, URLError(56, "The connection was reset"));
      });
      break;
    case Kind::cancellations:
      transfers_.deliverCancellations();
      break;
    case Kind::failRun:
      runFails_ = true;
      break;
    case Kind::failStore:
      excuse();
      hasStoreFailed_ = true;
      storeFiles_.arm({.call = 1 + argument % 5, .among = {FileOperation::open, FileOperation::replace}});
      break;
    case Kind::jump:
      // What was interrupted and lies idle for a day is given up.
      if (hasIdleRuns_) excuse();
      // And what ended a day after it began may leave the list before the page looks.
      for (auto& [id, download] : downloads_) download.mayStayUntold = true;
      clock_.advance(std::chrono::seconds(86401));
      break;
    case Kind::restart:
      if (!isInRun_) restart();
      break;
  }
}

void EngineModel::Step::run(ProcessingRun& run) {
  EngineModel& model = model_;
  Download& download = model.downloads_[run.state.downloadId];
  model.require(!std::exchange(model.isInRun_, true), "one file is processed at a time", run.state.downloadId);
  model.require(!model.saved(download) || download.isExcused, "a file that was saved does not run again",
                run.state.downloadId);
  const Path temp = run.fileURL.parent_path() / (makeUUID() + ".m4a");
  run.state.addTempFile(temp);
  run.updateProcessingStage(ProcessingStage::remuxing);
  writeFileAtomically(model.disk_, temp, Bytes(1));
  for (int i = 0; i < 3; ++i) model.doNext();
  model.isInRun_ = false;
  if (std::exchange(model.runFails_, false)) {
    download.mayFail = true;
    throw Error("Test", -1, "drawn");
  }
  readFile(run.files, run.fileURL);
  SavingStep::run(run);
}

JSObject EngineModel::call(const std::string& method, JSObject options) {
  JSObject data;
  plugin_->call(std::make_shared<CAPPluginCall>(method, std::move(options),
                                                [&](const CAPPluginCall::Answer& answer) { data = answer.data; }));
  return data;
}

void EngineModel::start(uint32_t argument) {
  clock_.advance(std::chrono::seconds(1));  // lest the next process give out the same id
  const std::string url = fmt::format("http://127.0.0.1/{}", ++starts_);
  const JSObject answer = call("saveVideo", {{"url", url},
                                             {"album", "Trips"},
                                             {"filename", fmt::format("clip{}.mp4", argument % 3)},
                                             {"skipVideoFix", argument % 2 == 0}});
  if (const int64_t id = idOf(answer)) {
    require(!downloads_.contains(id), "an id is given out once", id);
    downloads_[id] = {.url = url, .size = 100 + starts_, .isExcused = storeFiles_.fired()};
  }
}

void EngineModel::cancel(uint32_t argument) {
  if (downloads_.empty()) return;
  const auto chosen = std::next(downloads_.begin(), argument % static_cast<uint32_t>(downloads_.size()));
  const bool isListed = call("getActiveDownloads").find(std::to_string(chosen->first)) != nullptr;
  call("cancel", {{"id", chosen->first}});
  if (!isListed) return;
  chosen->second.mayStayUntold = true;
  if (!saved(chosen->second)) chosen->second.isCancelled = true;
}

void EngineModel::cancelEverything(const std::string& method) {
  const JSObject listed = call("getActiveDownloads");
  for (auto& [id, download] : downloads_) {
    const JSValue* const entry = listed.find(std::to_string(id));
    if (!entry) continue;
    const std::string status = *entry->get<JSObject>()->find("status")->get<std::string>();
    download.hadEnded = status == "STATUS_FAILED" || status == "STATUS_SUCCESSFUL";
    download.mayStayUntold = true;
    if (!saved(download)) download.isCancelled = true;
  }
  call(method);
}

/// Chooses among the transfers that run, and whose file was handed over or not.
void EngineModel::withTransfer(uint32_t argument, bool isDelivered, const std::function<void(Download&)>& work) {
  std::vector<Download*> fitting;
  for (const auto& transfer : transfers_.tasks()) {
    if (transfer->state() != NSURLSessionTaskState::running) continue;
    for (auto& [id, download] : downloads_) {
      if (download.url == transfer->originalRequestURL() && download.isDelivered == isDelivered) {
        fitting.push_back(&download);
      }
    }
  }
  if (!fitting.empty()) work(*fitting[argument % fitting.size()]);
}

void EngineModel::excuse() {
  for (auto& [id, download] : downloads_) download.isExcused = true;
}

// --- Promises ---

void EngineModel::require(bool holds, const std::string& promise, int64_t id) {
  if (!holds && !broken_) broken_ = fmt::format("{} ({}), at step {}", promise, id, next_);
}

size_t EngineModel::saved(const Download& download) {
  return static_cast<size_t>(std::ranges::count(photos_.fetchAllAssets(), download.size, &PHAsset::size));
}

void EngineModel::hear(const std::string& name, const JSObject& data) {
  if (name != "downloadComplete") return;
  const int64_t id = idOf(data);
  Download& download = downloads_[id];
  ++download.told;
  ++download.toldByThisProcess;
  const bool isSaved = *data.find("status")->get<std::string>() == "STATUS_SUCCESSFUL";
  require(download.toldByThisProcess == 1, "an end is told once", id);
  require(!isSaved || saved(download) > 0, "what is told as saved was saved", id);
  require(isSaved || download.mayFail || download.isExcused || download.hadEnded, "nothing fails by itself", id);
  require(!download.isCancelled || download.hadEnded || isSaved, "nothing is told of what was cancelled", id);
  // What an earlier process has ended has no outcome in this one.
  const auto outcome = outcomes_.find(id);
  if (outcome == outcomes_.end() || download.isExcused) return;
  const bool isSavedToo = outcome->second.kind == RunOutcome::Kind::saved && outcome->second.assetId;
  require(isSaved == isSavedToo, "an outcome says what the page is told", id);
}

std::vector<ProcessingState> EngineModel::pending() {
  return ProcessingStateManager(defaults_, disk_, clock_).allPendingStates().value_or(std::vector<ProcessingState>());
}

void EngineModel::look() {
  std::set<uint64_t> sizes;  // no two downloads have the same
  for (const PHAsset& asset : photos_.fetchAllAssets())
    require(sizes.insert(asset.size).second, "a video is saved once");
  if (storeFiles_.fired()) storeFiles_.disarm();
  if (next_ % 8 != 0) return;
  for (const ProcessingState& state : pending()) {
    require(disk_.fileExists(state.fileURL) || downloads_[state.downloadId].isExcused, "a record has its file",
            state.downloadId);
  }
}

/// All that can come comes: the page is there, the network works, and nothing is drawn any more.
void EngineModel::comeToAnEnd() {
  storeFiles_.disarm();
  runFails_ = false;
  call("setDownloadLimit", {{"limit", 10}});
  for (int round = 0; round < 100 && !broken_; ++round) {
    application_->enterForeground();
    dispatch_.advance(std::chrono::seconds(1));
    transfers_.deliverCancellations();
    if (transfers_.tasks().empty() && pending().empty() && round > 2) break;
    for (const bool isDelivered : {false, true}) {
      withTransfer(0, isDelivered, [&](Download& download) {
        if (!std::exchange(download.isDelivered, true)) transfers_.finish(download.url, Bytes(download.size));
        transfers_.complete(download.url);
      });
    }
  }
  application_->enterBackground();  // the files that nobody owns are swept
  dispatch_.runUntilIdle();
  application_->enterForeground();
  dispatch_.runUntilIdle();
  lookAtRest();
}

void EngineModel::lookAtRest() {
  for (const auto& [id, download] : downloads_) {
    if (download.isExcused) continue;
    require(download.isCancelled || download.mayFail || saved(download) == 1, "every video is saved", id);
    require(download.mayStayUntold || download.told > 0, "every end is told", id);
  }
  require(transfers_.tasks().empty(), "every transfer ends");
  require(pending().empty(), "every run ends");
  require(application_->held() == 0, "background time is given back");
  auto left = disk_.contentsOfDirectory(disk_.documentsDirectory(true));
  // While the records cannot be read no file is touched; the next process takes the temp files.
  if (hasStoreFailed_) std::erase_if(left, [](const std::string& name) { return name.ends_with(".m4a"); });
  require(left.empty(), "no file is left without an owner: " + (left.empty() ? "" : left.front()));
  for (int i = 0; i < 10; ++i) start(static_cast<uint32_t>(i));
  const int64_t waiting = *call("getDownloadLimit").find("queued")->get<int64_t>();
  require(waiting == 0, "every slot is free");
}

}  // namespace tarn::test
