#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/host/HostApplication.h"
#include "platform/memory/ManualDispatch.h"

namespace tarn {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

/// Notes what it hears, with the state that it finds; and begins a task on entry into the background.
class Listener : public UIApplicationObserver {
 public:
  Listener(UIApplication& application, std::vector<std::string>& heard) : application_(application), heard_(heard) {}

  void appDidEnterBackground() override {
    note("background");
    application_.beginBackgroundTask("run", [this] { note("expired"); });
  }
  void appWillEnterForeground() override { note("foreground"); }
  void appWillTerminate() override { note("terminate"); }

 private:
  void note(const std::string& what) {
    heard_.push_back(what + " " + std::to_string(static_cast<int>(application_.applicationState())));
  }

  UIApplication& application_;
  std::vector<std::string>& heard_;
};

TEST(HostApplication, TellsItsObserversOnTheMainQueueAfterTheStateHasChanged) {
  ManualDispatch dispatch;
  HostApplication application(dispatch);
  std::vector<std::string> heard;
  const auto listener = std::make_shared<Listener>(application, heard);
  application.addObserver(listener);
  application.addObserver(std::make_shared<Listener>(application, heard));  // gone at once

  application.enterBackground();
  application.enterBackground();  // it is there already
  EXPECT_THAT(heard, ElementsAre());
  dispatch.runUntilIdle();
  application.enterForeground();
  application.enterForeground();  // asks again for pending work
  application.terminate();
  dispatch.runUntilIdle();
  EXPECT_THAT(heard, ElementsAre("background 2", "foreground 0", "foreground 0", "terminate 0"));

  // An interrupt enters the background and ends its time in one breath: a task that an observer begins on hearing of
  // the first must get the second.
  heard.clear();
  application.enterBackground();
  application.expireBackgroundTime();
  dispatch.runUntilIdle();
  EXPECT_THAT(heard, ElementsAre("background 2", "expired 2", "expired 2")) << "and the task of the earlier stay";
}

TEST(HostApplication, BackgroundTasksExpireWhenTheLimitHasPassed) {
  ManualDispatch dispatch;
  HostApplication application(dispatch, {.backgroundLimit = 30s});
  std::vector<std::string> expired;
  const auto begin = [&](const char* name) {
    return application.beginBackgroundTask(name, [&expired, name] { expired.emplace_back(name); });
  };

  application.enterBackground();
  begin("left before the limit");
  dispatch.advance(29s);
  application.enterForeground();
  dispatch.advance(5s);
  EXPECT_THAT(expired, ElementsAre()) << "the limit of an earlier stay has no say";

  application.enterBackground();
  const auto ended = begin("ended");
  EXPECT_NE(begin("running"), UIBackgroundTaskInvalid);
  application.endBackgroundTask(ended);
  dispatch.advance(30s);
  EXPECT_THAT(expired, ElementsAre("left before the limit", "running"));

  const auto endedInTime = begin("too late, but ended");
  begin("too late");
  application.endBackgroundTask(endedInTime);
  EXPECT_EQ(expired.size(), 2u) << "handlers come on the main queue";
  dispatch.runUntilIdle();
  EXPECT_THAT(expired, ElementsAre("left before the limit", "running", "too late"));

  application.refuseBackgroundTasks(true);
  EXPECT_EQ(begin("refused"), UIBackgroundTaskInvalid);
  application.expireBackgroundTime();
  dispatch.runUntilIdle();
  EXPECT_EQ(expired.size(), 3u) << "each handler runs once, that of a refused task never";
}

}  // namespace
}  // namespace tarn
