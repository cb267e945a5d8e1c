#include <fmt/format.h>
#include <gtest/gtest.h>

#include <string>

#include "platform/host/HostApplication.h"
#include "platform/memory/ManualDispatch.h"

namespace tarn {
namespace {

using namespace std::chrono_literals;

/// Notes what it hears, with the state that it finds; and begins a task on entry into the background.
struct Listener : UIApplicationObserver {
  Listener(UIApplication& a, std::string& h) : application(a), heard(h) {}
  void appDidEnterBackground() override {
    note("background");
    application.beginBackgroundTask("run", [this] { note("expired"); });
  }
  void appWillEnterForeground() override { note("foreground"); }
  void appWillTerminate() override { note("terminate"); }
  void note(const char* what) { heard += fmt::format("{} {}, ", what, int(application.applicationState())); }

  UIApplication& application;
  std::string& heard;
};

TEST(HostApplication, TellsItsObserversAfterTheStateHasChanged) {
  ManualDispatch dispatch;
  HostApplication application(dispatch);
  std::string heard;
  const auto listener = std::make_shared<Listener>(application, heard);
  application.addObserver(listener);
  application.addObserver(std::make_shared<Listener>(application, heard));  // gone at once

  // An interrupt enters the background and ends its time in one breath: a task that an observer begins on hearing of
  // the first must get the second.
  application.enterBackground();
  application.enterBackground();  // it is there already
  application.expireBackgroundTime();
  EXPECT_EQ(heard, "") << "all comes on the main queue";
  dispatch.runUntilIdle();
  application.enterForeground();
  application.enterForeground();  // asks again for pending work
  application.terminate();
  dispatch.runUntilIdle();
  EXPECT_EQ(heard, "background 2, expired 2, foreground 0, foreground 0, terminate 0, ");
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

  application.refuseBackgroundTasks(true);
  EXPECT_EQ(begin(", refused"), UIBackgroundTaskInvalid);
  application.expireBackgroundTime();
  dispatch.runUntilIdle();
  EXPECT_EQ(expired, "left before the limit, running, too late") << "each handler runs once";
}

}  // namespace
}  // namespace tarn
