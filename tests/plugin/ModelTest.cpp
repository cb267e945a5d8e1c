// The engine under every order of events: a model of what it promises beside it, and steps drawn at random. Then a day
// of the engine, and the day after: downloads, kills and faults on a clock that is moved by hand.

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "plugin/EngineDriver.h"

namespace tarn::test {
namespace {

using namespace std::chrono_literals;

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
    openProcess(dispatch_, disk_);
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

#ifdef TARN_SANITIZED
constexpr uint32_t usualSeeds = 100;
#else
constexpr uint32_t usualSeeds = 2000;
#endif
constexpr uint32_t shares = 4;

/// The fewest of the steps that still break a promise.
std::vector<ModelStep> shortest(std::vector<ModelStep> steps) {
  for (size_t piece = steps.size() / 2; piece > 0;) {
    bool isShorter = false;
    for (size_t at = 0; at < steps.size();) {
      std::vector<ModelStep> fewer = steps;
      const auto from = fewer.begin() + static_cast<std::ptrdiff_t>(at);
      fewer.erase(from, from + static_cast<std::ptrdiff_t>(std::min(piece, fewer.size() - at)));
      if (EngineModel::brokenBy(fewer)) {
        steps = std::move(fewer);
        isShorter = true;
      } else {
        at += piece;
      }
    }
    if (!isShorter) piece /= 2;
  }
  return steps;
}

/// One share of the seeds.
class EngineModelTest : public testing::TestWithParam<uint32_t> {};

TEST_P(EngineModelTest, KeepsItsPromisesUnderEveryOrderOfEvents) {
  const uint32_t first = numberFrom("TARN_MODEL_FIRST", 0), seeds = numberFrom("TARN_MODEL_SEEDS", usualSeeds);
  for (uint32_t seed = first + GetParam(); seed < first + seeds; seed += shares) {
    const std::vector<ModelStep> steps = EngineDriver::drawSteps(seed, 200);
    if (!EngineModel::brokenBy(steps)) continue;
    const std::vector<ModelStep> fewest = shortest(steps);
    FAIL() << "seed " << seed << ": " << *EngineModel::brokenBy(fewest) << "\n" << text(fewest);
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, EngineModelTest, testing::Range(0U, shares));

constexpr int hoursOfTheDay = 24;

/// A figure of this process as the kernel counts it: "VmRSS:" is in KiB.
size_t countedByTheKernel(const std::string& name) {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    size_t figure = 0;
    if (word == name && status >> figure) return figure;
  }
  ADD_FAILURE() << "the kernel tells no " << name;
  return 0;
}

/// The model's steps, hour after hour. What has ended and kept its promises is taken out of the albums and forgotten.
class EngineDay : private EngineModel {
 public:
  EngineDay(std::vector<ModelStep>& steps, uint32_t seed) : EngineModel(steps), steps_(steps), seed_(seed) {}

  void passHour(size_t downloads) {
    const auto end = clock_.now() + 1h;
    for (const size_t before = downloads_.size(); !broken_ && downloads_.size() < before + downloads; doNext()) {
      if (next_ == steps_.size()) draw();
    }
    next_ = steps_.size();  // no run that is still to come does more of them
    while (clock_.now() < end) letTimePass();
    comeToAnEnd();
    forget(10);
  }

  /// Those that began last are left alone for a day: half of them as transfers, half with a stored run.
  void passTheDayAfter() {
    application_->enterBackground();
    application_->expireBackgroundTime();
    letTimePass();
    for (size_t half = downloads_.size() / 2; half > 0; --half) {
      withTransfer(0, false, [&](const std::string& url) { deliver(url); });
    }
    require(!pending().empty(), "a run is stored when its time is up");
    giveUp(true);
    endProcess();
    clock_.advance(24h + 1s);
    startProcess();
    letAllEnd();
    // A failure that a kill kept from the page stays, until the page has dismissed it.
    const JSObject listed = call("getActiveDownloads");
    for (const auto& [id, download] : listed.members()) {
      require(download.get<JSObject>()->json().find("STATUS_FAILED") != std::string::npos, "listed a day later: " + id);
    }
    require(pending().empty() && transfers_.storedTaskDescriptions().empty(), "nothing is stored a day later");
    require(disk_.contentsOfDirectory(disk_.documentsDirectory(true)).empty(), "no file is left a day later");
    forget(0);
  }

  size_t begun = 0, savedOnce = 0, cancelled = 0, failed = 0, excused = 0, kills = 0;
  std::optional<std::string> broken() const { return broken_; }

 private:
  void draw() {
    steps_ = drawSteps(seed_++, 200);
    next_ = 0;
    for (auto& [kind, argument] : steps_) {
      const bool isForAll = kind == "cancelAll" || kind == "clearAll";  // few are left to be saved
      const bool isExcuse = kind == "failStore" || kind == "jump";      // for every download before it
      if ((isForAll && argument >= 200) || (isExcuse && argument >= 5)) kind = "second";
    }
  }

  void perform(const ModelStep& step) override {
    if (step.kind == "restart" && !isInRun_) ++kills;
    if (step.kind != "second") return EngineModel::perform(step);
    for (uint32_t second = 0; second <= step.argument % 56; ++second) letTimePass();
  }

  void letTimePass() override {
    clock_.advance(1s);
    EngineModel::letTimePass();
  }
  bool isLate(int round) override { return round == 1000; }

  /// All but those that came to no end yet.
  void forget(size_t kept) {
    for (; downloads_.size() > kept; downloads_.erase(downloads_.begin())) {
      const auto& [number, download] = *downloads_.begin();
      ++begun;
      ++(saved(number) ? savedOnce : download.isCancelled ? cancelled : download.mayFail ? failed : excused);
      told_.erase(download.id);
      begun_.erase(download.id);
    }
    std::vector<PHObjectPlaceholder> assets;
    for (const PHAsset& asset : photos_.fetchAllAssets()) assets.push_back({asset.localIdentifier});
    photos_.performChangesAndWait([&](PHChangeBlock& change) { change.expungeAssets(assets); });
  }

  std::vector<ModelStep>& steps_;
  uint32_t seed_;
};

TEST(EngineSoakTest, ADayOfDownloadsKillsAndFaultsLosesNothingAndLeavesNothing) {
  const uint32_t downloads = numberFrom("TARN_SOAK_DOWNLOADS", 480), seed = numberFrom("TARN_SOAK_SEED", 0);
  std::vector<ModelStep> steps;
  EngineDay day(steps, seed);
  size_t memory = 0;
  const size_t threads = countedByTheKernel("Threads:");
  for (int hour = 1; hour <= hoursOfTheDay; ++hour) {
    day.passHour(downloads / hoursOfTheDay + 1);
    ASSERT_EQ(day.broken().value_or(""), "") << "hour " << hour << " of seed " << seed << ": " << text(steps);
    malloc_trim(0);
    if (hour == hoursOfTheDay / 4) memory = countedByTheKernel("VmRSS:");
  }
  const size_t memoryAtLast = countedByTheKernel("VmRSS:");
  day.passTheDayAfter();
  ASSERT_EQ(day.broken().value_or(""), "") << "the day after, seed " << seed;
  EXPECT_GE(day.begun, downloads);
  EXPECT_GT(day.savedOnce, day.begun / 4);
  EXPECT_EQ(countedByTheKernel("Threads:"), threads);
#ifndef TARN_SANITIZED  // whose allocators keep what is freed
  EXPECT_LE(memoryAtLast, memory + memory / 10 + 1024) << "KiB, at the end and at a quarter of the day";
#endif
  std::cout << fmt::format(
      "seed {}, {} kills, {} downloads ({} saved, {} failed, {} cancelled, {} lost with a store or left for a day); "
      "{} KiB at a quarter, {} at the end\n",
      seed, day.kills, day.begun, day.savedOnce, day.failed, day.cancelled, day.excused, memory, memoryAtLast);
}

}  // namespace
}  // namespace tarn::test
