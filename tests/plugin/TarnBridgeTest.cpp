#include <gtest/gtest.h>

#include <algorithm>

#include "platform/host/AsioDispatch.h"
#include "platform/host/HostApplication.h"
#include "platform/host/PosixFileManager.h"
#include "platform/memory/InMemoryPhotoLibrary.h"
#include "platform/memory/ScriptedURLSession.h"
#include "plugin/SavingStep.h"
#include "plugin/TarnBridgePlugin.h"
#include "support/BridgeClient.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

constexpr const char* url = "http://127.0.0.1/clip.mp4";

/// A page's view of the plug-in: real queues and files, transfers in the test's hands.
class TarnBridgeTest : public testing::Test {
 protected:
  ~TarnBridgeTest() override {
    page_.reset();
    plugin_.reset();
    dispatch_.stop();
  }

  void load() {
    plugin_ = TarnBridge::create({files_, defaults_, clock_, dispatch_, application_, photos_, transfers_},
                                 {.last = &savingStep_});
    page_.emplace(*plugin_);
    plugin_->load();
  }

  BridgeClient::Answer save(JSObject options = {{"url", url}, {"album", "Trips"}, {"filename", "clip.mp4"}}) {
    return page_->call("saveVideo", std::move(options));
  }

  std::string completion() {
    auto event = page_->waitForEvent("downloadComplete");
    return event ? event->json() : "none";
  }

  std::string activeDownloads() { return page_->call("getActiveDownloads").data.json(); }

  /// Waits for what happens on another queue.
  template <typename Condition>
  bool soon(Condition condition) {
    for (int i = 0; i < 500 && !condition(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return condition();
  }

  TempDirectory home_;
  PosixFileManager files_{home_.path()};
  UserDefaults defaults_{files_, home_.path() / "Defaults"};
  SystemClock clock_;
  AsioDispatch dispatch_;
  HostApplication application_{dispatch_};
  InMemoryPhotoLibrary photos_{files_, dispatch_};
  ScriptedURLSessionService transfers_{files_, home_.path() / "delivered"};
  SavingStep savingStep_{photos_, clock_};
  std::shared_ptr<TarnBridge> plugin_;
  std::optional<BridgeClient> page_;
};

TEST_F(TarnBridgeTest, RefusesIncompleteCallsInItsOwnWords) {
  load();
  struct Row {
    const char* method;
    JSObject options;
    const char* message;
  };
  const Row rows[] = {
      {"saveVideo", {}, "Must provide the data path"},
      {"saveVideo", {{"url", 7}, {"album", "a"}, {"filename", "f"}}, "Must provide the data path"},
      {"saveVideo", {{"url", url}, {"filename", "f"}}, "Must provide the album"},
      {"saveVideo", {{"url", url}, {"album", "a"}}, "Must provide filename"},
      {"saveVideo", {{"url", "file:///etc/passwd"}, {"album", "a"}, {"filename", "f"}}, "Invalid download URL."},
      {"cancel", {}, "No such download"},
      {"cancel", {{"id", "7"}}, "No such download"},
      {"setDownloadLimit", {{"limit", true}}, "limit is required"},
      {"cleanupFiles", {}, "not implemented"},
      {"formatDisk", {}, "not implemented"},
  };
  for (const Row& row : rows) {
    auto answer = page_->call(row.method, row.options);
    EXPECT_FALSE(answer.resolved);
    EXPECT_EQ(answer.message, row.message);
  }
  EXPECT_EQ(activeDownloads(), "{}");
  EXPECT_EQ(page_->call("cancel", {{"id", 12}}).data.json(), R"({"id":12})");
  EXPECT_EQ(page_->call("getDownloadLimit").data.json(), R"({"limit":3,"queued":0})");
  EXPECT_EQ(page_->call("setDownloadLimit", {{"limit", 50}}).data.json(), R"({"limit":10})");
  EXPECT_EQ(page_->call("setDownloadLimit", {{"limit", 0}}).data.json(), R"({"limit":1})");
}

TEST_F(TarnBridgeTest, AsksForThePhotoPermission) {
  load();
  using enum PHAuthorizationStatus;
  struct Row {
    PHAuthorizationStatus status;
    PHAuthorizationStatus answer;
    bool isAllowed;
  };
  const Row rows[] = {{authorized, denied, true},        {limited, denied, true},
                      {denied, authorized, false},       {restricted, authorized, false},
                      {notDetermined, authorized, true}, {notDetermined, limited, true},
                      {notDetermined, denied, false}};
  for (const Row& row : rows) {
    photos_.authorization().setStatus(row.status);
    photos_.authorization().setAnswer(row.answer);
    auto answer = save();
    EXPECT_EQ(answer.resolved, row.isAllowed);
    EXPECT_EQ(answer.message, row.isAllowed ? "" : "Access to photos not allowed by user");
    page_->call("clearAllStates");
  }
}

TEST_F(TarnBridgeTest, TellsThePageOfADownloadFromStartToEnd) {
  load();
  page_->call("setDownloadLimit", {{"limit", 1}});
  auto answer = save();
  ASSERT_TRUE(answer.resolved);
  const int64_t id = *answer.data.find("id")->get<int64_t>();
  const std::string key = std::to_string(id);
  EXPECT_EQ(answer.data.json(),
            R"({"status":"STATUS_RUNNING","reason":"REASON_NONE","filename":"clip.mp4","id":)" + key + "}");
  auto waiting = save({{"url", "http://127.0.0.1/b.mp4"}, {"album", "Trips"}, {"filename", "b.mp4"}});
  EXPECT_EQ(*waiting.data.find("status")->get<std::string>(), "STATUS_PENDING");
  EXPECT_EQ(page_->call("getDownloadLimit").data.json(), R"({"limit":1,"queued":1})");

  transfers_.writeData(url, 25, 100);
  auto progress = page_->waitForEvent("downloadProgress", [&](const JSObject& data) {
    const JSValue* entry = data.find(key);
    return entry && *entry->get<JSObject>()->find("bytesDownloaded")->get<int64_t>() == 25;
  });
  ASSERT_TRUE(progress) << "a sample each second";
  EXPECT_EQ(progress->find(key)->get<JSObject>()->json(),
            R"({"id":)" + key +
                R"(,"status":"STATUS_RUNNING","reason":"REASON_NONE","filename":"clip.mp4",)"
                R"("bytesDownloaded":25,"totalBytes":100})");

  transfers_.finish(url, bytesOf("no video, but saved as it came"));
  transfers_.complete(url);
  auto assets = [&] { return photos_.fetchAllAssets(); };
  ASSERT_TRUE(soon([&] { return assets().size() == 1; }));
  EXPECT_EQ(completion(), R"({"status":"STATUS_SUCCESSFUL","reason":"REASON_NONE","filename":"clip.mp4","id":)" + key +
                              R"(,"assetId":")" + assets()[0].localIdentifier + "\"}");
  EXPECT_EQ(assets()[0].filename, "clip.mp4");
  EXPECT_TRUE(soon([&] { return activeDownloads().find(key) == std::string::npos; }));
  EXPECT_TRUE(soon([&] { return activeDownloads().find("STATUS_RUNNING") != std::string::npos; })) << "the next starts";
  auto told = page_->events();
  EXPECT_EQ(std::ranges::count(told, "downloadComplete", &BridgeClient::Event::name), 1);
}

TEST_F(TarnBridgeTest, AFailureComesWithoutItsWords) {
  load();
  auto id = std::to_string(*save().data.find("id")->get<int64_t>());
  transfers_.complete(url, URLError(404, "HTTP status 404"));
  EXPECT_EQ(completion(), R"({"status":"STATUS_FAILED","reason":"ERROR_UNKNOWN","id":)" + id + "}");
  EXPECT_TRUE(soon([&] { return activeDownloads() == "{}"; }));
}

TEST_F(TarnBridgeTest, ASaveWithoutAlbumFailsAndItsFileGoesWithItsTask) {
  load();
  save({{"url", url}, {"album", ""}, {"filename", "clip.mp4"}});
  transfers_.finish(url, bytesOf("x"));
  EXPECT_TRUE(completion().starts_with(R"({"status":"STATUS_FAILED","reason":"ERROR_UNKNOWN","filename":"clip.mp4",)"));
  EXPECT_TRUE(soon([&] { return files_.contentsOfDirectory(files_.documentsDirectory(true)).empty(); }));
}

TEST_F(TarnBridgeTest, WorkThatEndedBeforeAKillIsToldAtTheNextForeground) {
  const std::string id = std::to_string(secondsSince1970(clock_.now()));
  defaults_.setData("ActiveDownloads", bytesOf(R"([{"id":)" + id +
                                               R"(,"url":"u","filename":"a.mp4","status":"completed"},)"
                                               R"({"id":6,"url":"u","status":"failed"}])"));
  load();
  EXPECT_EQ(activeDownloads(),
            R"({"6":{"id":6,"status":"STATUS_FAILED","reason":"REASON_NONE","bytesDownloaded":0,"totalBytes":0},")" +
                id + R"(":{"id":)" + id +
                R"(,"status":"STATUS_SUCCESSFUL","reason":"REASON_NONE","filename":"a.mp4",)"
                R"("bytesDownloaded":0,"totalBytes":0}})");
  application_.enterForeground();
  EXPECT_EQ(completion(),
            R"({"status":"STATUS_SUCCESSFUL","reason":"REASON_NONE","filename":"a.mp4","id":)" + id + "}");
  EXPECT_TRUE(soon([&] { return plugin_->downloadManager().getDownloads().size() == 1; })) << "the failed one stays";
}

}  // namespace
}  // namespace tarn::test
