#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "platform/host/AsioDispatch.h"
#include "platform/host/HostApplication.h"
#include "platform/memory/InMemoryPhotoLibrary.h"
#include "platform/memory/ManualDispatch.h"
#include "platform/memory/ScriptedURLSession.h"
#include "plugin/SavingStep.h"
#include "plugin/TarnBridgePlugin.h"
#include "support/BridgeClient.h"
#include "support/Eventually.h"
#include "support/TestHome.h"

namespace tarn::test {
namespace {

constexpr const char* url = "http://127.0.0.1/clip.mp4";

/// A page's view of the plug-in: real queues, files in memory, transfers in the test's hands.
class TarnBridgeTest : public testing::Test, protected TestHome {
 protected:
  TarnBridgeTest() { load(); }
  ~TarnBridgeTest() override {
    page_.reset();
    plugin_.reset();
    dispatch_.stop();
  }

  void load() {
    page_.reset();
    plugin_ = TarnBridge::create({files_, defaults_, clock_, dispatch_, application_, photos_, transfers_},
                                 {.last = &savingStep_});
    page_.emplace(*plugin_);
    plugin_->load();
  }

  BridgeClient::Answer save(const std::string& from = url, const std::string& album = "Trips") {
    return page_->call("saveVideo", {{"url", from}, {"album", album}, {"filename", "clip.mp4"}});
  }

  /// The answer's data, or the words of a rejection.
  std::string call(const std::string& method, JSObject options = {}) {
    const auto answer = page_->call(method, std::move(options));
    return answer.resolved ? answer.data.json() : answer.message;
  }

  std::string completion() { return page_->waitForEvent("downloadComplete").value_or(JSObject()).json(); }

  SystemClock clock_;
  AsioDispatch dispatch_;
  HostApplication application_{dispatch_};
  InMemoryPhotoLibrary photos_{files_, dispatch_};
  ScriptedURLSessionService transfers_{files_, home_ / "delivered"};
  SavingStep savingStep_{photos_, clock_};
  std::shared_ptr<TarnBridge> plugin_;
  std::optional<BridgeClient> page_;
};

TEST_F(TarnBridgeTest, AnswersInItsOwnWords) {
  struct Row {
    const char* method;
    JSObject options;
    const char* answer;
  };
  for (const auto& [method, options, answer] :
       {Row{"saveVideo", {}, "Must provide the data path"},
        {"saveVideo", {{"url", 7}, {"album", "a"}, {"filename", "f"}}, "Must provide the data path"},
        {"saveVideo", {{"url", url}, {"filename", "f"}}, "Must provide the album"},
        {"saveVideo", {{"url", url}, {"album", "a"}}, "Must provide filename"},
        {"saveVideo", {{"url", "file:///etc/passwd"}, {"album", "a"}, {"filename", "f"}}, "Invalid download URL."},
        {"cancel", {}, "No such download"},
        {"cancel", {{"id", "7"}}, "No such download"},
        {"setDownloadLimit", {{"limit", true}}, "limit is required"},
        {"cleanupFiles", {}, "not implemented"},
        {"getActiveDownloads", {}, "{}"},
        {"cancel", {{"id", 12}}, R"({"id":12})"},
        {"getDownloadLimit", {}, R"({"limit":3,"queued":0})"},
        {"setDownloadLimit", {{"limit", 50}}, R"({"limit":10})"},
        {"setDownloadLimit", {{"limit", 0}}, R"({"limit":1})"}}) {
    EXPECT_EQ(call(method, options), answer);
  }
}

TEST_F(TarnBridgeTest, AsksForThePhotoPermission) {
  using enum PHAuthorizationStatus;
  struct Row {
    PHAuthorizationStatus status, answer;
    bool isAllowed;
  };
  const Row rows[] = {{authorized, denied, true},        {limited, denied, true},
                      {denied, authorized, false},       {restricted, authorized, false},
                      {notDetermined, authorized, true}, {notDetermined, limited, true},
                      {notDetermined, denied, false}};
  for (const auto& [status, answer, isAllowed] : rows) {
    photos_.authorization().setStatus(status);
    photos_.authorization().setAnswer(answer);
    EXPECT_EQ(save().message, isAllowed ? "" : "Access to photos not allowed by user");
    call("clearAllStates");
  }
}

TEST_F(TarnBridgeTest, TellsThePageOfADownloadFromStartToEnd) {
  call("setDownloadLimit", {{"limit", 1}});
  const auto answer = save().data;
  const std::string key = std::to_string(*answer.find("id")->get<int64_t>());
  EXPECT_EQ(answer.json(),
            R"({"status":"STATUS_RUNNING","reason":"REASON_NONE","filename":"clip.mp4","id":)" + key + "}");
  EXPECT_EQ(*save("http://127.0.0.1/b.mp4").data.find("status")->get<std::string>(), "STATUS_PENDING");
  EXPECT_EQ(call("getDownloadLimit"), R"({"limit":1,"queued":1})");

  transfers_.writeData(url, 25, 100);
  const std::string sample = R"({"id":)" + key +
                             R"(,"status":"STATUS_RUNNING","reason":"REASON_NONE","filename":"clip.mp4",)"
                             R"("bytesDownloaded":25,"totalBytes":100})";
  EXPECT_TRUE(page_->waitForEvent("downloadProgress", [&](const JSObject& data) {
    const JSValue* entry = data.find(key);
    return entry && entry->get<JSObject>()->json() == sample;
  })) << "a sample each second";

  transfers_.finish(url, bytesOf("no video, but saved as it came"));
  transfers_.complete(url);
  ASSERT_TRUE(eventually([&] { return photos_.fetchAllAssets().size() == 1; }));
  const PHAsset asset = photos_.fetchAllAssets()[0];
  EXPECT_EQ(asset.filename, "clip.mp4");
  EXPECT_EQ(completion(), R"({"status":"STATUS_SUCCESSFUL","reason":"REASON_NONE","filename":"clip.mp4","id":)" + key +
                              R"(,"assetId":")" + asset.localIdentifier + "\"}");
  EXPECT_TRUE(eventually([&] { return call("getActiveDownloads").find(key) == std::string::npos; }));
  EXPECT_TRUE(eventually([&] { return call("getActiveDownloads").find("STATUS_RUNNING") != std::string::npos; }))
      << "the next starts";
  EXPECT_EQ(std::ranges::count(page_->events(), "downloadComplete", &BridgeClient::Event::name), 1);
}

TEST_F(TarnBridgeTest, AFailureComesWithoutItsWordsAndAllOfItGoes) {
  const auto id = std::to_string(*save().data.find("id")->get<int64_t>());
  transfers_.complete(url, URLError(404, "HTTP status 404"));
  EXPECT_EQ(completion(), R"({"status":"STATUS_FAILED","reason":"ERROR_UNKNOWN","id":)" + id + "}");
  EXPECT_TRUE(eventually([&] { return call("getActiveDownloads") == "{}"; }));
}

TEST_F(TarnBridgeTest, WorkThatEndedBeforeAKillIsToldAtTheNextForeground) {
  EXPECT_TRUE(eventually([&] { return stored("ActiveDownloads") == "[]"; })) << "the first process has settled";
  const std::string id = std::to_string(secondsSince1970(clock_.now()));
  defaults_.setData("ActiveDownloads", bytesOf(R"([{"id":)" + id +
                                               R"(,"url":"u","filename":"a.mp4","status":"completed"},)"
                                               R"({"id":6,"url":"u","status":"failed"}])"));
  load();
  application_.enterForeground();
  EXPECT_EQ(completion(),
            R"({"status":"STATUS_SUCCESSFUL","reason":"REASON_NONE","filename":"a.mp4","id":)" + id + "}");
  const std::string left =
      R"({"6":{"id":6,"status":"STATUS_FAILED","reason":"REASON_NONE","bytesDownloaded":0,"totalBytes":0}})";
  EXPECT_TRUE(eventually([&] { return call("getActiveDownloads") == left; })) << "the failed one stays";
}

TEST_F(TarnBridgeTest, AnswersHoweverOftenAllIsCancelledAndBegunAgain) {
  const auto threads = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}); };
  save();
  const auto before = threads();
  for (int round = 0; round < 200; ++round) {
    EXPECT_EQ(call("cancelAllDownloads"), "{}");
    EXPECT_EQ(call("clearAllStates"), "{}");
    // The answer comes by way of the queues that share their threads.
    photos_.authorization().setStatus(PHAuthorizationStatus::notDetermined);
    ASSERT_TRUE(save().resolved);
  }
  EXPECT_EQ(threads(), before);
}

TEST(ProgressWatcherTest, MissesNoDownloadThatBeginsDuringItsLastLook) {
  ManualDispatch dispatch;
  int looks = 0;
  std::optional<ProgressWatcher> watcher;
  watcher.emplace(dispatch, [&] {
    if (++looks == 1) watcher->startCheckingProgress();
    return false;
  });
  for (const int expected : {2, 3}) {
    watcher->startCheckingProgress();
    dispatch.runUntilIdle();
    EXPECT_EQ(looks, expected);
  }
}

}  // namespace
}  // namespace tarn::test
