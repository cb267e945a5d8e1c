// A day of the engine, and the day after: downloads, kills and faults on a clock that is moved by hand.

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <fstream>
#include <iostream>

#include "plugin/EngineModel.h"

namespace tarn::test {
namespace {

using namespace std::chrono_literals;

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
