// What a page is answered and told, on queues that run when the test says so.

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <optional>
#include <thread>

#include "platform/host/HostApplication.h"
#include "platform/memory/InMemoryPhotoLibrary.h"
#include "platform/memory/ManualDispatch.h"
#include "platform/memory/ScriptedURLSession.h"
#include "plugin/SavingStep.h"
#include "plugin/SimpleMediaSaver.h"
#include "plugin/TarnBridgePlugin.h"
#include "support/FailureOf.h"
#include "support/FaultyServices.h"
#include "support/ManualClock.h"
#include "support/TestHome.h"

namespace tarn::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr const char* url = "http://127.0.0.1/clip.mp4";

class TarnBridgeTest : public testing::Test, protected TestHome {
 protected:
  TarnBridgeTest() { load(); }

  void load() {
    plugin_.reset();
    dispatch_.runUntilIdle();
    events_.clear();
    plugin_ = TarnBridge::create({files_, defaults_, clock_, dispatch_, application_, photos_, transfers_},
                                 {.last = &savingStep_});
    plugin_->setEventListener(
        [this](const std::string& name, const JSObject& data) { events_.push_back(name + " " + data.json()); });
    plugin_->load();
    plugin_->downloadManager().handleEventsForBackgroundURLSession();
    dispatch_.runUntilIdle();
  }

  /// The answer's data, or the words of a rejection.
  std::string call(const std::string& method, JSObject options = {}) {
    std::string answer = "none";
    plugin_->call(std::make_shared<CAPPluginCall>(method, std::move(options), [&](const CAPPluginCall::Answer& given) {
      answer = given.resolved ? given.data.json() : given.message;
    }));
    dispatch_.runUntilIdle();
    return answer;
  }
  std::string save(const std::string& from = url) {
    return call("saveVideo", {{"url", from}, {"album", "Trips"}, {"filename", "clip.mp4"}, {"skipVideoFix", true}});
  }

  std::string saveTo(PHPhotoLibrary& library, const Path& source) {
    return SimpleMediaSaver::saveVideo(library, clock_, source, "first.mp4", "Trips");
  }

  std::vector<std::string> completions() const {
    std::vector<std::string> found;
    std::ranges::copy_if(events_, std::back_inserter(found),
                         [](const std::string& event) { return event.starts_with("downloadComplete"); });
    return found;
  }

  ManualClock clock_;  // its first second is the first download's id
  ManualDispatch dispatch_;
  HostApplication application_{dispatch_};
  InMemoryPhotoLibrary photos_{files_, dispatch_};
  ScriptedURLSessionService transfers_{files_, home_ / "delivered"};
  SavingStep savingStep_{photos_, clock_};
  std::vector<std::string> events_;
  std::shared_ptr<TarnBridge> plugin_;
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
    EXPECT_THAT(save(), HasSubstr(isAllowed ? "STATUS_" : "Access to photos not allowed by user"));
    call("clearAllStates");
  }
}

TEST_F(TarnBridgeTest, TellsThePageOfADownloadFromStartToEnd) {
  call("setDownloadLimit", {{"limit", 1}});
  EXPECT_EQ(save(), R"({"status":"STATUS_RUNNING","reason":"REASON_NONE","filename":"clip.mp4","id":1800000000})");
  EXPECT_THAT(save("http://127.0.0.1/b.mp4"), HasSubstr("STATUS_PENDING"));
  EXPECT_EQ(call("getDownloadLimit"), R"({"limit":1,"queued":1})");

  const auto nextSample = [this] {
    events_.clear();
    dispatch_.advance(1s);
    return events_.back();
  };
  transfers_.writeData(url, 25, 100);
  EXPECT_THAT(nextSample(),
              HasSubstr(R"("1800000000":{"id":1800000000,"status":"STATUS_RUNNING","reason":"REASON_NONE",)"
                        R"("filename":"clip.mp4","bytesDownloaded":25,"totalBytes":100})"));

  DispatchQueue& worker = dispatch_.serialQueue("com.tarn.processing");
  dispatch_.hold(worker);
  transfers_.finish(url, bytesOf("no video, but saved as it came"));
  plugin_->downloadManager().getDownloads().at(0)->update([](auto& fields) {
    fields.processingProgress = 0.999;
    fields.processingStage = "Transcoding";
  });
  EXPECT_THAT(nextSample(),
              HasSubstr(R"("1800000000":{"id":1800000000,"status":"STATUS_PROCESSING","reason":"REASON_NONE",)"
                        R"("filename":"clip.mp4","bytesDownloaded":25,"totalBytes":100,)"
                        R"("processingProgress":99,"processingStage":"Transcoding"})"));
  plugin_->processingProgressUpdated(7, 0.999, "Transcoding");
  EXPECT_EQ(events_.back(), R"(downloadProgress {"7":{"id":7,"status":"STATUS_PROCESSING",)"
                            R"("processingProgress":99,"processingStage":"Transcoding"}})");
  dispatch_.release(worker);
  transfers_.complete(url);
  dispatch_.advance(1s);
  const auto assets = photos_.fetchAllAssets();
  ASSERT_EQ(assets.size(), 1U);
  EXPECT_EQ(assets[0].filename, "clip.mp4");
  EXPECT_THAT(completions(), ElementsAre(R"(downloadComplete {"status":"STATUS_SUCCESSFUL","reason":"REASON_NONE",)"
                                         R"("filename":"clip.mp4","id":1800000000,"assetId":")" +
                                         assets[0].localIdentifier + "\"}"));
  EXPECT_THAT(call("getActiveDownloads"), testing::AllOf(Not(HasSubstr("1800000000")), HasSubstr("STATUS_RUNNING")))
      << "the next starts";
}

TEST_F(TarnBridgeTest, AFailureComesWithoutItsWordsAndAllOfItGoes) {
  save();
  transfers_.complete(url, URLError(404, "HTTP status 404"));
  dispatch_.runUntilIdle();
  EXPECT_THAT(completions(),
              ElementsAre(R"(downloadComplete {"status":"STATUS_FAILED","reason":"ERROR_UNKNOWN","id":1800000000})"));
  EXPECT_EQ(call("getActiveDownloads"), "{}");
}

TEST_F(TarnBridgeTest, WorkThatEndedBeforeAKillIsToldAtTheNextForeground) {
  defaults_.setData("ActiveDownloads",
                    bytesOf(R"([{"id":1800000000,"url":"u","filename":"a.mp4","status":"completed"},)"
                            R"({"id":6,"url":"u","status":"failed"}])"));
  load();
  application_.enterForeground();
  dispatch_.runUntilIdle();
  EXPECT_THAT(completions(), ElementsAre(R"(downloadComplete {"status":"STATUS_SUCCESSFUL","reason":"REASON_NONE",)"
                                         R"("filename":"a.mp4","id":1800000000})"));
  EXPECT_EQ(call("getActiveDownloads"),
            R"({"6":{"id":6,"status":"STATUS_FAILED","reason":"REASON_NONE","bytesDownloaded":0,"totalBytes":0}})")
      << "the failed one stays";
}

TEST_F(TarnBridgeTest, OneLoopAloneSendsSamplesHoweverOftenAllIsCancelledAndBegunAgain) {
  for (int round = 0; round < 20; ++round) {
    EXPECT_EQ(call("cancelAllDownloads"), "{}");
    EXPECT_EQ(call("clearAllStates"), "{}");
    photos_.authorization().setStatus(PHAuthorizationStatus::notDetermined);
    EXPECT_THAT(save(), HasSubstr("STATUS_"));
  }
  events_.clear();
  dispatch_.advance(3500ms);
  EXPECT_EQ(events_.size(), 3U);
}

TEST_F(TarnBridgeTest, TellsThePresentListenerAlone) {
  const auto send = [this] { plugin_->processingProgressUpdated(7, 0.5, "Transcoding"); };
  // A listener may go while another thread sends: once it has gone, it is not called any more.
  for (int round = 0; round < 50; ++round) {
    auto alive = std::make_unique<std::atomic<int>>(0);
    plugin_->setEventListener([&](const std::string&, const JSObject&) { ++*alive; });
    std::thread sender([&] {
      for (int i = 0; i < 200; ++i) send();
    });
    plugin_->setEventListener({});
    alive.reset();
    sender.join();
  }
  int calls = 0;
  plugin_->setEventListener([&](const std::string&, const JSObject&) {
    ++calls;
    plugin_->setEventListener({});  // from within: must not wait for itself
  });
  send();
  send();
  EXPECT_EQ(calls, 1);
}

TEST_F(TarnBridgeTest, SavesIntoOneAlbumWithTheNameAndThePresentDate) {
  const Path source = put("a clip.mp4", "video");
  const auto first = saveTo(photos_, source);
  EXPECT_EQ(saveTo(photos_, source), first) << "a retry";
  saveTo(photos_, put("other.mp4", "another video"));
  const auto albums = photos_.fetchAssetCollections(std::nullopt);
  ASSERT_EQ(albums.size(), 1u);
  const auto assets = photos_.fetchAssets(albums[0], std::nullopt);
  ASSERT_EQ(assets.size(), 2u);
  EXPECT_EQ(assets[0].filename, "first.mp4");
  EXPECT_EQ(assets[0].creationDate, clock_.now());
  EXPECT_TRUE(SimpleMediaSaver::checkIfFileExistsInAlbum(photos_, first, "Trips"));
  EXPECT_FALSE(SimpleMediaSaver::checkIfFileExistsInAlbum(photos_, first, "New"));
}

TEST_F(TarnBridgeTest, AFailureOfTheLibrarySaysWhatIsMissing) {
  const Path source = put("a clip.mp4", "video");
  const std::string fault = PosixError(EIO, "fault of a test").description();
  const std::string noAsset =
      "No placeholder for asset creation request, or no asset request (check if video exists at ";
  // Which call of the library fails, and in which words the save then does.
  const std::pair<uint64_t, std::string> rows[] = {{1, fault},
                                                   {2, noAsset + fileURLText(source) + ")"},
                                                   {3, noAsset + fileURLText(source) + ")"},
                                                   {7, "Failed to create album: Failed to create album"},
                                                   {8, "Failed to create album: " + fault},
                                                   {10, "Failed to create album: No created asset"},
                                                   {11, fault},
                                                   {12, ""}};
  for (const auto& [call, words] : rows) {
    SCOPED_TRACE(call);
    InMemoryPhotoLibrary library(files_, dispatch_);
    FaultyCalls calls;
    FaultyPhotoLibrary faulty(library, calls);
    calls.arm(call, false);
    EXPECT_EQ(failureOf([&] { saveTo(faulty, source); }), words);
  }
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
