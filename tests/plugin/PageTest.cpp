// What a page is told, on queues that run when the test says so.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/host/HostApplication.h"
#include "platform/memory/InMemoryPhotoLibrary.h"
#include "platform/memory/ManualDispatch.h"
#include "platform/memory/ScriptedURLSession.h"
#include "plugin/SavingStep.h"
#include "plugin/TarnBridgePlugin.h"
#include "support/ManualClock.h"
#include "support/TestHome.h"

namespace tarn::test {
namespace {

using testing::ElementsAre;
constexpr const char* url = "http://127.0.0.1/clip.mp4";

class PageTest : public testing::Test, protected TestHome {
 protected:
  PageTest() { load(); }

  void load() {
    plugin_.reset();
    dispatch_.runUntilIdle();
    events_.clear();
    plugin_ = TarnBridge::create({files_, defaults_, clock_, dispatch_, application_, photos_, transfers_}, steps_);
    plugin_->setEventListener(
        [this](const std::string& name, const JSObject& data) { events_.push_back(name + " " + data.json()); });
    plugin_->load();
    plugin_->downloadManager().handleEventsForBackgroundURLSession();
    dispatch_.runUntilIdle();
  }

  std::string call(const std::string& method, JSObject options = {}) {
    std::string answer = "none";
    plugin_->call(std::make_shared<CAPPluginCall>(
        method, std::move(options), [&](const CAPPluginCall::Answer& given) { answer = given.data.json(); }));
    return answer;
  }
  void save() {
    call("saveVideo", {{"url", url}, {"album", "Trips"}, {"filename", "clip.mp4"}, {"skipVideoFix", true}});
  }

  ManualClock clock_;
  ManualDispatch dispatch_;
  HostApplication application_{dispatch_};
  InMemoryPhotoLibrary photos_{files_, dispatch_};
  ScriptedURLSessionService transfers_{files_, home_ / "delivered"};
  SavingStep savingStep_{photos_, clock_};
  ProcessingSteps steps_{.last = &savingStep_};
  std::vector<std::string> events_;
  std::shared_ptr<TarnBridge> plugin_;
};

TEST_F(PageTest, GetsWhatItNeedsToShowARun) {
  save();
  dispatch_.hold(dispatch_.serialQueue("com.tarn.processing"));
  transfers_.finish(url, bytesOf("video"));
  const auto task = plugin_->downloadManager().getDownloads().at(0);
  task->update([](auto& fields) {
    fields.processingProgress = 0.999;
    fields.processingStage = "Transcoding";
  });
  dispatch_.runUntilIdle();
  events_.clear();
  dispatch_.advance(std::chrono::seconds(1));
  EXPECT_THAT(events_,
              ElementsAre("downloadProgress {\"1800000000\":{\"id\":1800000000,\"status\":\"STATUS_PROCESSING\","
                          "\"reason\":\"REASON_NONE\",\"filename\":\"clip.mp4\",\"bytesDownloaded\":0,"
                          "\"totalBytes\":0,\"processingProgress\":99,\"processingStage\":\"Transcoding\"}}"));
  plugin_->processingProgressUpdated(7, 0.999, "Transcoding");
  EXPECT_EQ(events_.back(),
            "downloadProgress {\"7\":{\"id\":7,\"status\":\"STATUS_PROCESSING\","
            "\"processingProgress\":99,\"processingStage\":\"Transcoding\"}}");
}

TEST_F(PageTest, OneLoopAloneSendsSamples) {
  for (int round = 0; round < 5; ++round) {
    call("cancelAllDownloads");
    call("clearAllStates");
    save();
    dispatch_.runUntilIdle();
  }
  events_.clear();
  dispatch_.advance(std::chrono::milliseconds(3500));
  EXPECT_EQ(events_.size(), 3U);
}

}  // namespace
}  // namespace tarn::test
