#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "platform/host/AsioDispatch.h"
#include "platform/host/HostApplication.h"
#include "platform/memory/ManualDispatch.h"

namespace tarn {
namespace {

using namespace std::chrono_literals;

TEST(AsioDispatch, ASerialQueueRunsItsWorkOneAtATimeInOrder) {
  AsioDispatch dispatch;
  for (const bool ownThread : {false, true}) {
    const auto queue = dispatch.makeSerialQueue("serial", ownThread);
    std::vector<int> seen;  // no lock: the queue alone keeps these apart
    for (int i = 0; i < 1000; ++i) queue->async([&seen, i] { seen.push_back(i); });
    std::latch askers(4);
    for (int i = 0; i < 4; ++i) {
      dispatch.globalQueue(QualityOfService::userInitiated).async([&] {
        queue->sync([&seen] { seen.push_back(1000); });
        askers.count_down();
      });
    }
    askers.wait();
    EXPECT_EQ(seen.size(), 1004u);
    EXPECT_TRUE(std::ranges::is_sorted(seen));
  }
}

TEST(AsioDispatch, BlockedWorkHoldsUpNeitherTheMainQueueNorAQueueWithAThreadOfItsOwn) {
  std::latch blocked(8);
  std::latch release(1);
  AsioDispatch dispatch;
  for (int i = 0; i < 8; ++i) {
    dispatch.globalQueue(QualityOfService::background).async([&] {
      blocked.count_down();
      release.wait();
    });
  }
  blocked.wait();
  int done = 0;
  dispatch.mainQueue().sync([&] { ++done; });
  dispatch.makeSerialQueue("worker", true)->sync([&] { ++done; });
  EXPECT_EQ(done, 2);
  release.count_down();
}

// What the end waits for: running work, and work that running work waits for. What it drops: all that has not begun.
TEST(AsioDispatch, DestructionWaitsForRunningWorkAndDropsTheRest) {
  std::atomic<bool> finished = false;
  std::atomic<bool> awaited = false;
  std::atomic<int> dropped = 0;
  const auto owned = std::make_shared<int>(0);
  std::shared_ptr<DispatchQueue> other;
  std::shared_ptr<DispatchQueue> queue;
  {
    AsioDispatch dispatch;
    queue = dispatch.makeSerialQueue("queue", false);
    other = dispatch.makeSerialQueue("other", true);
    std::latch begun(1);
    queue->async([&] {
      begun.count_down();
      std::this_thread::sleep_for(50ms);
      other->sync([&] { awaited = true; });
      finished = true;
    });
    // The closures own their queue: what is dropped must not keep itself alive.
    queue->async([&dropped, owned, queue] { ++dropped; });
    queue->asyncAfter(1h, [&dropped, owned, queue] { ++dropped; });
    begun.wait();
  }
  EXPECT_TRUE(finished);
  EXPECT_TRUE(awaited);
  EXPECT_EQ(owned.use_count(), 1);
  for (const auto& late : {queue, other}) {
    late->async([&] { ++dropped; });
    late->asyncAfter(0ms, [&] { ++dropped; });
    late->sync([&] { ++dropped; });
  }
  EXPECT_EQ(dropped, 0);
}

TEST(HostApplication, BackgroundTasksExpireWhenTheLimitHasPassed) {
  ManualDispatch dispatch;
  HostApplication application(dispatch, {.backgroundLimit = 30s});
  std::string expired;
  const auto begin = [&](const char* name) {
    return application.beginBackgroundTask(name, [&expired, name] { expired += name; });
  };

  application.enterBackground();
  begin("left before the limit");
  dispatch.advance(29s);
  application.enterForeground();
  dispatch.advance(5s);
  EXPECT_EQ(expired, "") << "the limit of an earlier stay has no say";

  application.enterBackground();
  const auto ended = begin(", ended");
  begin(", running");
  application.endBackgroundTask(ended);
  dispatch.advance(30s);
  const auto endedInTime = begin(", too late, but ended");
  begin(", too late");
  application.endBackgroundTask(endedInTime);
  EXPECT_EQ(expired, "left before the limit, running") << "handlers come on the main queue";
  dispatch.runUntilIdle();

  application.expireBackgroundTime();
  dispatch.runUntilIdle();
  EXPECT_EQ(expired, "left before the limit, running, too late") << "each handler runs once";
}

}  // namespace
}  // namespace tarn
