#include <gtest/gtest.h>

#include "pipeline/CancellationToken.h"
#include "pipeline/ProcessingStateManager.h"
#include "platform/host/PosixFileManager.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

class ProcessingStateTest : public testing::Test {
 protected:
  ProcessingState record(int64_t id, ProcessingStage stage) {
    ProcessingState state;
    state.downloadId = id;
    state.filename = "clip.mp4";
    state.fileURL = files_.documentsDirectory(true) / ("clip" + std::to_string(id) + ".mp4");
    state.stage = stage;
    state.lastUpdated = clock_.now();
    writeFileAtomically(files_, state.fileURL, bytesOf("video"));
    return state;
  }

  Path tempFile(const std::string& name) {
    Path path = files_.documentsDirectory(true) / name;
    writeFileAtomically(files_, path, bytesOf("temp"));
    return path;
  }

  std::string document() {
    auto data = defaults_.data(ProcessingStateManager::userDefaultsKey);
    return data ? std::string(textOf(*data)) : "none";
  }

  TempDirectory home_;
  PosixFileManager files_{home_.path()};
  UserDefaults defaults_{files_, home_.path() / "Defaults"};
  ManualClock clock_;
  ProcessingStateManager store_{defaults_, files_, clock_};
};

TEST_F(ProcessingStateTest, StoredDocumentIsAFlatArrayOfIdsAndRecords) {
  ProcessingState state;
  state.downloadId = 1800000000;
  state.filename = "clip.mp4";
  state.album = "Trips";
  state.fileURL = "/home/a b/\xC3\xA9.mp4";
  state.stage = ProcessingStage::syncFixing;
  state.tempFiles = {"/tmp/x.m4a"};
  state.lastUpdated = Date(std::chrono::seconds(978307200) + std::chrono::milliseconds(1500));
  state.needsRemuxing = true;
  store_.saveState(state);
  EXPECT_EQ(document(),
            R"([1800000000,{"downloadId":1800000000,"filename":"clip.mp4","album":"Trips",)"
            R"("fileURL":"file:///home/a%20b/%C3%A9.mp4","stage":"syncFixing","tempFiles":["file:///tmp/x.m4a"],)"
            R"("lastUpdated":1.5,"needsRemuxing":true,"needsAudioTranscode":false,"skipAVSync":false}])");
  auto read = store_.loadState(1800000000);
  ASSERT_TRUE(read);
  EXPECT_EQ(read->fileURL, state.fileURL);
  EXPECT_EQ(read->lastUpdated, state.lastUpdated);
  EXPECT_FALSE(read->error || read->videoFirstPTS);
}

TEST_F(ProcessingStateTest, ADamagedDocumentCountsAsEmptyAndTheNextSaveReplacesIt) {
  const std::string whole = R"([7,{"downloadId":7,"filename":"a","fileURL":"file:///a","stage":"remuxed",)"
                            R"("tempFiles":[],"lastUpdated":0,"needsRemuxing":true,"needsAudioTranscode":false,)"
                            R"("skipAVSync":false}])";
  auto replaced = [&](const std::string& from, const std::string& to) {
    std::string text = whole;
    text.replace(text.find(from), from.size(), to);
    return text;
  };
  defaults_.setData(ProcessingStateManager::userDefaultsKey, bytesOf(whole));
  EXPECT_EQ(store_.allPendingStates().size(), 1U);
  const std::string damaged[] = {whole.substr(0, whole.size() / 2),
                                 replaced("remuxed", "stopped"),
                                 replaced("\"filename\":\"a\",", ""),
                                 replaced("[7,", "["),
                                 replaced("file:///a", "http://a"),
                                 replaced("\"lastUpdated\":0", "\"lastUpdated\":1e300"),
                                 replaced("[]", "7"),
                                 "{}",
                                 "\xFF\xFE"};
  for (const std::string& text : damaged) {
    LogCapture lines;
    defaults_.setData(ProcessingStateManager::userDefaultsKey, bytesOf(text));
    EXPECT_TRUE(store_.allPendingStates().empty()) << text;
    ASSERT_FALSE(lines.lines().empty());
    EXPECT_TRUE(lines.lines().front().starts_with("Failed to decode processing states: ")) << lines.lines().front();
    EXPECT_EQ(document(), text) << "reading must not touch what is stored";
    store_.saveState(record(8, ProcessingStage::remuxed));
    EXPECT_EQ(store_.allStates().size(), 1U);
  }
}

TEST_F(ProcessingStateTest, PendingRecordsComeOldestFirstAndFinalOnesNot) {
  store_.saveState(record(3, ProcessingStage::syncFixing));
  clock_.advance(std::chrono::seconds(-5));
  store_.saveState(record(4, ProcessingStage::downloaded));
  store_.saveState(record(1, ProcessingStage::completed));
  store_.saveState(record(2, ProcessingStage::failed));
  auto pending = store_.allPendingStates();
  ASSERT_EQ(pending.size(), 2U);
  EXPECT_EQ(pending[0].downloadId, 4);
  EXPECT_EQ(pending[1].downloadId, 3);
  store_.removeState(99);
  EXPECT_EQ(store_.allStates().size(), 4U);
}

TEST_F(ProcessingStateTest, CleanupTakesOldRecordsAndThoseWithoutTheirVideo) {
  const std::chrono::seconds day(86400);
  auto old = record(1, ProcessingStage::failed);
  old.tempFiles = {tempFile("old.m4a")};
  old.lastUpdated -= day + std::chrono::seconds(3600);
  store_.saveState(old);
  auto young = record(2, ProcessingStage::remuxing);
  young.lastUpdated -= day;
  young.tempFiles = {tempFile("young.m4a"), "/gone.m4a"};
  store_.saveState(young);
  auto orphan = record(3, ProcessingStage::remuxed);
  orphan.tempFiles = {tempFile("orphan.m4a")};
  store_.saveState(orphan);
  files_.removeItem(orphan.fileURL);

  LogCapture lines;
  store_.cleanupStaleStates(day);
  EXPECT_TRUE(lines.contains("Removed stale processing state for download 1 (age: 25h)"));
  EXPECT_FALSE(files_.fileExists(old.tempFiles[0]));
  EXPECT_TRUE(files_.fileExists(old.fileURL)) << "the video is the sweep's to delete";
  store_.validateStates();
  EXPECT_TRUE(lines.contains("Removed 1 processing state(s) with missing files"));
  EXPECT_FALSE(files_.fileExists(orphan.tempFiles[0]));
  auto left = store_.allStates();
  ASSERT_EQ(left.size(), 1U);
  EXPECT_EQ(left[0].downloadId, 2);
  EXPECT_EQ(left[0].tempFiles, std::vector<Path>{young.tempFiles[0]});
  store_.clearAllStates();
  EXPECT_EQ(document(), "[]");
  EXPECT_FALSE(files_.fileExists(young.tempFiles[0]));
  EXPECT_TRUE(files_.fileExists(young.fileURL));
}

TEST_F(ProcessingStateTest, ADocumentThatCannotBeReadIsLeftAlone) {
  store_.saveState(record(1, ProcessingStage::remuxed));
  const Path file = home_.path() / "Defaults" / ProcessingStateManager::userDefaultsKey;
  files_.moveItem(file, home_.path() / "aside");
  files_.createDirectory(file);  // reading a directory fails
  store_.saveState(record(2, ProcessingStage::remuxed));
  EXPECT_TRUE(store_.allPendingStates().empty());
  files_.removeItem(file);
  files_.moveItem(home_.path() / "aside", file);
  EXPECT_EQ(store_.allPendingStates().size(), 1U);
}

TEST(CancellationTokenTest, ThrowsWhileSet) {
  CancellationToken token;
  token.throwIfCancelled();
  token.cancel();
  EXPECT_THROW(token.throwIfCancelled(), CancellationError);
  token.reset();
  token.throwIfCancelled();
}

}  // namespace
}  // namespace tarn::test
