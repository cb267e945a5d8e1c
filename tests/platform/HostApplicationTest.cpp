#include <gtest/gtest.h>

#include <string>

#include "platform/host/HostApplication.h"
#include "platform/memory/ManualDispatch.h"

namespace tarn {
namespace {

using namespace std::chrono_literals;

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
