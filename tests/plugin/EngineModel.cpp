#include "plugin/EngineModel.h"

#include <algorithm>
#include <set>

namespace tarn::test {

using Kind = ModelStep::Kind;

std::optional<std::string> EngineModel::brokenBy(const std::vector<ModelStep>& steps) {
  EngineModel model(steps);
  while (!model.broken_ && model.next_ < steps.size()) model.doNext();
  if (!model.broken_) model.comeToAnEnd();
  return model.broken_;
}

EngineModel::EngineModel(const std::vector<ModelStep>& steps) : steps_(steps) {
  EngineModel::startProcess();
}

EngineModel::~EngineModel() {
  EngineModel::endProcess();
}

void EngineModel::startProcess() {
  outcomes_.clear();
  openProcess(dispatch_);
  if (!transfers_.storedTaskDescriptions().empty()) plugin_->downloadManager().handleEventsForBackgroundURLSession();
}

void EngineModel::endProcess() {
  plugin_.reset();
  dispatch_.runUntilIdle();  // nobody is there to do it for
}

void EngineModel::killAndRestart() {
  // Until its removal is stored, a kill undoes a cancel.
  const JSObject listed = call("getActiveDownloads");
  for (auto& [number, download] : downloads_) {
    if (!download.isCancelled || !listed.find(std::to_string(download.id))) continue;
    download.isCancelled = false;
    download.mayBeLost = true;
  }
  restart();
}

void EngineModel::doNext() {
  if (next_ == steps_.size()) return;
  perform(steps_[next_++]);
  look();
}

void EngineModel::perform(const ModelStep& step) {
  EngineDriver::perform(step);
  if (step.kind == Kind::turn) dispatch_.runOne([&](size_t count) { return step.argument % count; });
  if (step.kind == Kind::settle) dispatch_.runUntilIdle();
  if (step.kind == Kind::second) letTimePass();
  if (step.kind == Kind::restart && !isInRun_) killAndRestart();
}

void EngineModel::inTheMiddleOfARun(uint64_t) {
  for (int i = 0; i < 3; ++i) doNext();
}

void EngineModel::letTimePass() {
  dispatch_.advance(std::chrono::seconds(1));
}

std::optional<uint64_t> EngineModel::start(uint32_t argument) {
  const auto number = EngineDriver::start(argument);
  if (number && storeFiles_.fired()) downloads_[*number].mayBeLost = downloads_[*number].mayStayUntold = true;
  return number;
}

void EngineModel::cancel(uint64_t number, int64_t id) {
  const bool isListed = call("getActiveDownloads").find(std::to_string(id)) != nullptr;
  call("cancel", {{"id", id}});
  if (!isListed) return;
  downloads_[number].mayStayUntold = true;
  if (!saved(number)) downloads_[number].isCancelled = true;
}

void EngineModel::cancelEverything(const std::string& method) {
  const JSObject listed = call("getActiveDownloads");
  for (auto& [number, download] : downloads_) {
    const JSValue* const entry = listed.find(std::to_string(download.id));
    if (!entry) continue;
    const std::string status = *entry->get<JSObject>()->find("status")->get<std::string>();
    download.hadEnded = status == "STATUS_FAILED" || status == "STATUS_SUCCESSFUL";
    download.mayStayUntold = true;
    if (!saved(number)) download.isCancelled = true;
  }
  call(method);
}

void EngineModel::heard(int64_t id, bool isSaved) {
  const auto found = std::ranges::find_if(downloads_, [&](const auto& entry) { return entry.second.id == id; });
  if (found == downloads_.end()) return require(false, "only what was begun ends", id);
  const auto& [number, download] = *found;
  require(!isSaved || saved(number) > 0, "what is told as saved was saved", id);
  require(isSaved || download.mayFail || download.mayBeLost || download.hadEnded, "nothing fails by itself", id);
  require(!download.isCancelled || download.hadEnded || isSaved, "nothing is told of what was cancelled", id);
  // What an earlier process has ended has no outcome in this one.
  const auto outcome = outcomes_.find(id);
  if (outcome == outcomes_.end() || download.mayBeLost) return;
  const bool isSavedToo = outcome->second.kind == RunOutcome::Kind::saved && outcome->second.assetId;
  require(isSaved == isSavedToo, "an outcome says what the page is told", id);
}

void EngineModel::began(int64_t id, const DownloadRequest&) noexcept {
  require(begun_.insert(id).second, "a download begins once", id);
}

void EngineModel::ended(const RunOutcome& outcome) noexcept {
  begun_.erase(outcome.id);
  if (outcome.kind != RunOutcome::Kind::cancelled) outcomes_.insert_or_assign(outcome.id, outcome);
}

void EngineModel::look() {
  std::set<uint64_t> sizes;  // no two downloads have the same
  for (const PHAsset& asset : photos_.fetchAllAssets())
    require(sizes.insert(asset.size).second, "a video is saved once");
  if (storeFiles_.fired()) storeFiles_.disarm();
  if (next_ % 8 != 0) return;
  for (const ProcessingState& state : pending()) {
    const bool mayBeLost = std::ranges::any_of(
        downloads_, [&](const auto& entry) { return entry.second.id == state.downloadId && entry.second.mayBeLost; });
    require(disk_.fileExists(state.fileURL) || mayBeLost, "a record has its file", state.downloadId);
  }
}

}  // namespace tarn::test
