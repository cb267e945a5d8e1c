#include <gmock/gmock.h>

#include "pipeline/ProcessingStateManager.h"
#include "support/FaultyFileManager.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"
#include "support/TestHome.h"

namespace tarn::test {
namespace {

using testing::ElementsAre;
using testing::UnorderedElementsAre;
using enum ProcessingStage;

constexpr const char* key = ProcessingStateManager::userDefaultsKey;

class ProcessingStateTest : public testing::Test, protected TestHome {
 protected:
  /// Stores a record as old as that, with its video and a temp file.
  ProcessingState store(int64_t id, ProcessingStage stage, std::chrono::seconds age = {}) {
    const std::string name = "clip" + std::to_string(id);
    ProcessingState state{.downloadId = id,
                          .filename = "clip.mp4",
                          .fileURL = put(name + ".mp4", "video"),
                          .stage = stage,
                          .tempFiles = {put(name + ".m4a", "temp")},
                          .lastUpdated = clock_.now() - age};
    store_.saveState(state);
    return state;
  }

  static auto isRecord(int64_t id) { return testing::Field(&ProcessingState::downloadId, id); }

  FaultyFileManager faulty_{files_};
  UserDefaults faultyDefaults_{faulty_, home_ / "Defaults"};
  ManualClock clock_;
  ProcessingStateManager store_{faultyDefaults_, files_, clock_};
};

const std::string document =
    R"([1800000000,{"downloadId":1800000000,"filename":"clip.mp4","album":"Trips",)"
    R"("fileURL":"file:///home/a%20b/%C3%A9.mp4","stage":"syncFixing","tempFiles":["file:///tmp/x.m4a"],)"
    R"("lastUpdated":1.5,"needsRemuxing":true,"needsAudioTranscode":false,"skipAVSync":false,"askedFlags":[true,true,false],)"
    R"("videoFirstPTS":0.5,"lostEnd":"2 s","missing":"1 s","wrong":["a gap","a tag"],"done":["filled it"]}])";

TEST_F(ProcessingStateTest, WhatWasReadIsStoredAsItWas) {
  defaults_.setData(key, bytesOf(document));
  const ProcessingState record = store_.loadState(1800000000).value();
  EXPECT_EQ(record.fileURL, "/home/a b/\xC3\xA9.mp4");
  EXPECT_EQ(record.lastUpdated, Date(std::chrono::seconds(978307200) + std::chrono::milliseconds(1500)));
  EXPECT_TRUE(record.needsRemuxing && !record.needsAudioTranscode && !record.skipAVSync);
  store_.saveState(record);
  EXPECT_EQ(stored(key), document);
}

TEST_F(ProcessingStateTest, WhatDoesNotDecodeIsSetAsideOnceAndTheNextSaveDropsIt) {
  store(8, remuxed);
  const std::string good = stored(key);
  const std::pair<std::string, std::string> damages[] = {
      {document.substr(40), ""}, {"syncFixing", "stopped"},        {"\"filename\":\"clip.mp4\",", ""},
      {"[1800000000,", "["},     {"file:///home", "http:///home"}, {":1.5", ":1e300"},
      {":1.5", ":-1e300"},       {"[\"file:///tmp/x.m4a\"]", "7"}, {document, "{}"},
      {document, "\xFF\xFE"},
  };
  for (const auto& [from, to] : damages) {
    std::string text = document;
    text.replace(text.find(from), from.size(), to);
    LogCapture lines;
    defaults_.setData(key, bytesOf(text));
    EXPECT_EQ(store_.allPendingStates()->size(), 0U) << text;
    EXPECT_EQ(store_.allPendingStates()->size(), 0U);
    EXPECT_THAT(lines.lines(), ElementsAre(testing::HasSubstr(" is set aside: ")));
    EXPECT_EQ(stored(key), text) << "reading must not touch what is stored";
    EXPECT_EQ(decodeTexts(bytesOf(stored(ProcessingStateManager::setAsideKey))).size(), 1U);
    // What cannot be set aside is not dropped either.
    defaults_.removeObject(ProcessingStateManager::setAsideKey);
    faulty_.arm({.errnum = ENOSPC, .lasting = true, .among = {FileOperation::write}});
    store_.saveState({.downloadId = 8, .fileURL = "/x.mp4"});
    faulty_.disarm();
    EXPECT_EQ(stored(key), text);
    store(8, remuxed);
    EXPECT_EQ(stored(key), good);
    EXPECT_EQ(store_.problems().size(), 1U);
    const bool namesItsFile = text.find("file:///home/a%20b/%C3%A9.mp4") != std::string::npos;
    EXPECT_EQ(store_.filesInUse()->contains("/home/a b/\xC3\xA9.mp4"), namesItsFile) << text;
    defaults_.removeObject(ProcessingStateManager::setAsideKey);
  }
}

TEST_F(ProcessingStateTest, AChangeThatCannotBeStoredHoldsUntilTheNextOneIs) {
  for (const FileOperation failing : {FileOperation::read, FileOperation::write}) {
    store(1, remuxed);
    store(2, remuxed);
    faulty_.arm({.lasting = true, .among = {failing}});
    store_.removeState(1);
    store(2, failed);
    faulty_.disarm();
    EXPECT_FALSE(store_.loadState(1));
    EXPECT_EQ(store_.loadState(2)->stage, failed);
    EXPECT_NE(stored(key).find("clip1"), std::string::npos) << "the document is left alone";
    store(3, remuxed);
    EXPECT_EQ(stored(key).find("clip1"), std::string::npos);
    EXPECT_NE(stored(key).find("\"failed\""), std::string::npos);
  }
  faulty_.arm({.lasting = true, .among = {FileOperation::write}});
  store_.clearAllStates();
  faulty_.disarm();
  EXPECT_TRUE(store_.allStates().empty());
}

TEST_F(ProcessingStateTest, PendingRecordsComeOldestFirstAndFinalOnesNot) {
  store(3, syncFixing);
  store(4, downloaded, std::chrono::seconds(5));
  store(1, completed);
  store(2, failed);
  EXPECT_THAT(store_.allPendingStates(), testing::Optional(ElementsAre(isRecord(4), isRecord(3))));
}

TEST_F(ProcessingStateTest, CleanupTakesOldRecordsAndThoseWithoutTheirVideo) {
  const std::chrono::seconds day(86400);
  store(1, failed, day + std::chrono::seconds(3600));
  auto young = store(2, remuxing, day);
  young.addTempFile("/gone.m4a");
  store_.saveState(young);
  files_.removeItem(store(3, remuxed).fileURL);

  const auto documents = [this] { return files_.contentsOfDirectory(home_ / "Documents"); };
  store_.cleanupStaleStates(day);
  store_.validateStates();
  EXPECT_THAT(store_.allStates(), ElementsAre(isRecord(2)));
  EXPECT_THAT(store_.loadState(2)->tempFiles, ElementsAre(young.tempFiles[0]));
  EXPECT_THAT(documents(), UnorderedElementsAre("clip1.mp4", "clip2.mp4", "clip2.m4a")) << "videos are the sweep's";
  store_.clearAllStates();
  EXPECT_EQ(stored(key), "[]");
  EXPECT_THAT(documents(), UnorderedElementsAre("clip1.mp4", "clip2.mp4"));
}

}  // namespace
}  // namespace tarn::test
