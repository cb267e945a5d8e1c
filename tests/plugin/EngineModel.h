#pragma once

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "plugin/EngineDriver.h"

namespace tarn::test {

/// Does the steps one by one, some of them in the middle of a run, and looks after each whether the promises hold.
class EngineModel : protected EngineDriver {
 public:
  /// Does all the steps, and then lets everything come to its end. The first promise that was broken; nothing when all
  /// were kept.
  static std::optional<std::string> brokenBy(const std::vector<ModelStep>& steps) {
    EngineModel model(steps);
    while (!model.broken_ && model.next_ < steps.size()) model.doNext();
    if (!model.broken_) model.comeToAnEnd();
    return model.broken_;
  }

  ~EngineModel() override { EngineModel::endProcess(); }

 protected:
  explicit EngineModel(const std::vector<ModelStep>& steps) : steps_(steps) { EngineModel::startProcess(); }

  void startProcess() override {
    outcomes_.clear();
    openProcess(dispatch_);
    if (!transfers_.storedTaskDescriptions().empty()) plugin_->downloadManager().handleEventsForBackgroundURLSession();
  }
  void endProcess() override {
    plugin_.reset();
    dispatch_.runUntilIdle();  // nobody is there to do it for
  }

  void doNext() {
    if (next_ == steps_.size()) return;
    perform(steps_[next_++]);
    look();
  }

  void perform(const ModelStep& step) override {
    EngineDriver::perform(step);
    if (step.kind == "turn") dispatch_.runOne([&](size_t count) { return step.argument % count; });
    if (step.kind == "settle") dispatch_.runUntilIdle();
    if (step.kind == "second") letTimePass();
    if (step.kind == "restart" && !isInRun_) killAndRestart();
  }

  void inTheMiddleOfARun(uint64_t) override {
    for (int i = 0; i < 3; ++i) doNext();
  }
  void letTimePass() override { dispatch_.advance(std::chrono::seconds(1)); }
  bool isLate(int round) override { return round == 100; }
  bool isOpen(int64_t id) override { return begun_.contains(id); }

  std::optional<uint64_t> start(uint32_t argument) override {
    const auto number = EngineDriver::start(argument);
    if (number && storeFiles_.fired()) downloads_[*number].mayBeLost = downloads_[*number].mayStayUntold = true;
    return number;
  }

  void cancel(uint64_t number, int64_t id) override {
    const bool isListed = call("getActiveDownloads").find(std::to_string(id)) != nullptr;
    call("cancel", {{"id", id}});
    if (isListed) noteCancelled(number);
  }

  void cancelEverything(const std::string& method) override {
    const JSObject listed = call("getActiveDownloads");
    for (auto& [number, download] : downloads_) {
      const JSValue* const entry = listed.find(std::to_string(download.id));
      if (!entry) continue;
      const std::string status = *entry->get<JSObject>()->find("status")->get<std::string>();
      download.hadEnded = status == "STATUS_FAILED" || status == "STATUS_SUCCESSFUL";
      noteCancelled(number);
    }
    call(method);
  }

  void heard(int64_t id, bool isSaved) override {
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

  void began(int64_t id, const DownloadRequest&) noexcept override {
    require(begun_.insert(id).second, "a download begins once", id);
  }
  void ended(const RunOutcome& outcome) noexcept override {
    begun_.erase(outcome.id);
    if (outcome.kind != RunOutcome::Kind::cancelled) outcomes_.insert_or_assign(outcome.id, outcome);
  }

  const std::vector<ModelStep>& steps_;
  size_t next_ = 0;
  std::set<int64_t> begun_;  ///< downloads of which the listener has not heard the end

 private:
  void killAndRestart() {
    // Until its removal is stored, a kill undoes a cancel.
    const JSObject listed = call("getActiveDownloads");
    for (auto& [number, download] : downloads_) {
      if (!download.isCancelled || !listed.find(std::to_string(download.id))) continue;
      download.isCancelled = false;
      download.mayBeLost = true;
    }
    restart();
  }

  void noteCancelled(uint64_t number) {
    downloads_[number].mayStayUntold = true;
    if (!saved(number)) downloads_[number].isCancelled = true;
  }

  void look() {
    std::set<uint64_t> sizes;  // no two downloads have the same
    for (const PHAsset& asset : photos_.fetchAllAssets()) {
      require(sizes.insert(asset.size).second, "a video is saved once");
    }
    if (storeFiles_.fired()) storeFiles_.disarm();
    if (next_ % 8 != 0) return;
    for (const ProcessingState& state : pending()) {
      const bool mayBeLost = std::ranges::any_of(
          downloads_, [&](const auto& entry) { return entry.second.id == state.downloadId && entry.second.mayBeLost; });
      require(disk_.fileExists(state.fileURL) || mayBeLost, "a record has its file", state.downloadId);
    }
  }

  std::map<int64_t, RunOutcome> outcomes_;  ///< that this process has told, the last of each download
};

}  // namespace tarn::test
