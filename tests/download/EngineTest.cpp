#include "download/EngineTest.h"

#include <gmock/gmock.h>

namespace tarn::test {
namespace {

// --- The hand-over of a file ---

TEST_F(EngineTest, NamesThatLeaveDocumentsFailLikeAFailedMove) {
  const std::string names[] = {"../x", "/etc/x", "", ".", "..", std::string("a\0b", 3), std::string(300, 'n')};
  for (const std::string& name : names) {
    SCOPED_TRACE(name);
    auto task = saveAs(name, "clip.mp4");
    finish("clip.mp4");
    transfers_.complete(url("clip.mp4"));
    settle();
    EXPECT_EQ(task->status(), DownloadStatus::failed);
    const std::string failure = describe(task->snapshot().reason.failure);
    EXPECT_NE(failure.starts_with("Not a file name"), name.size() == 300) << failure << ": nothing is touched";
    EXPECT_TRUE(heard().starts_with("failed " + std::to_string(task->id)));
    EXPECT_TRUE(documents().empty());
    engine_->removeDownload(task->id);
    delegate_->heard.clear();
    settle();
  }
  EXPECT_TRUE(files_.contentsOfDirectory(home_.path() / "delivered").empty());
  auto task = saveAs("two\nlines.mp4", "line.mp4");
  finish("line.mp4");
  EXPECT_EQ(task->status(), DownloadStatus::completed) << "a line end is a legal name";
}

TEST_F(EngineTest, ANewcomerNeverReplacesAnotherDownloadsPendingFile) {
  dispatch_.hold(worker());
  save("clip.mp4");
  saveAs("clip.mp4", "other.mp4");
  finish("clip.mp4");
  finish("other.mp4");
  EXPECT_THAT(documents(), testing::UnorderedElementsAre("clip.mp4", "clip-1800000001.mp4"));
  dispatch_.release(worker());
  settle();
  EXPECT_EQ(contents(), "content of clip.mp4 content of other.mp4");
  EXPECT_TRUE(documents().empty());

  const std::string longest = std::string(251, 'y') + ".mp4";
  dispatch_.hold(worker());
  saveAs(longest, "long.mp4");
  const auto second = saveAs(longest, "longer.mp4");
  finish("long.mp4");
  finish("longer.mp4");
  dispatch_.release(worker());
  settle();
  EXPECT_EQ(second->status(), DownloadStatus::completed) << "its added id must fit";

  // What nobody waits for any more is replaced.
  put("third.mp4", "left behind");
  save("third.mp4");
  finish("third.mp4");
  EXPECT_EQ(contents_.back(), "content of third.mp4");
}

TEST_F(EngineTest, ANewcomerLeavesTheNameToARunWhoseRecordIsGone) {
  dispatch_.hold(worker());
  save("clip.mp4");
  finish("clip.mp4");
  defaults_.removeObject(ProcessingStateManager::userDefaultsKey);
  saveAs("clip.mp4", "other.mp4");
  finish("other.mp4");
  EXPECT_THAT(documents(), testing::UnorderedElementsAre("clip.mp4", "clip-1800000001.mp4"));
}

TEST_F(EngineTest, TheNameThatTheServerGivesIsTheDownloads) {
  const DownloadRequest request{.url = url("a.mp4"), .album = "Trips", .filename = "a.mp4", .takesServersName = true};
  const auto task = engine_->startDownloadFileBy(request, delegate_);
  transfers_.suggest(request.url, "b c.mp4");
  finish("a.mp4");
  EXPECT_EQ(task->filename(), "b c.mp4");
  EXPECT_THAT(stored("ActiveDownloads"), testing::HasSubstr("\"b c.mp4\""));
}

TEST_F(EngineTest, AFailedRunIsToldAndWhatTheAlbumDidNotTakeGoesWithItsDownload) {
  for (const bool isAtTheAlbum : {false, true}) {
    ScriptedStep failing({ProcessingStage::savingToPhotos}, notes_, [&](ProcessingRun& run, auto) {
      const Error failure("Test", -1, "there is no room");
      if (!isAtTheAlbum) throw failure;
      run.outcome.setFailed(RunOutcome::Where::saving, std::make_exception_ptr(failure));
    });
    engine_ = DownloadManager::create(platform_, {.last = &failing});
    const std::string name = isAtTheAlbum ? "unsaved" : "unrepaired";  // the sweep takes neither
    const auto task = save(name);
    finish(name);
    EXPECT_EQ(task->status(), DownloadStatus::failed);
    EXPECT_EQ(delegate_->heard.back(), "failed " + std::to_string(task->id));
    engine_->removeDownload(task->id);
    settle();
    EXPECT_EQ(files_.fileExists(home_ / "Documents" / name), !isAtTheAlbum);
  }
}

TEST_F(EngineTest, AFileThatIsNotThereWhenItIsToBeTakenFailsItsDownload) {
  save("a.mp4");
  transfers_.finishWithoutFile(url("a.mp4"));
  transfers_.complete(url("a.mp4"));
  engine_->takeIn(home_ / "gone.mp4", {.url = "", .album = "Trips", .filename = "a.mp4"}, delegate_);
  settle();
  for (const auto& task : engine_->getDownloads()) EXPECT_EQ(task->status(), DownloadStatus::failed);
  EXPECT_EQ(heard(), "failed 1800000000 failed 1800000001");
}

TEST_F(EngineTest, TheEndOfATransferTellsNothingOfARunWhoseRecordCannotBeRead) {
  dispatch_.hold(worker());
  save("clip.mp4");
  finish("clip.mp4");
  defaults_.setData(ProcessingStateManager::userDefaultsKey, bytesOf("damaged"));
  transfers_.complete(url("clip.mp4"));
  settle();
  EXPECT_EQ(heard(), "");
  dispatch_.release(worker());
  settle();
  EXPECT_EQ(heard(), "finished 1800000000");
}

TEST_F(EngineTest, TheLateCancellationOfOneTransferHitsNoOtherOfTheSameURL) {
  engine_->setMaxConcurrentDownloads(1);
  auto first = save("clip.mp4");
  auto waiting = save("clip.mp4");
  engine_->cancelDownloadFileBy(first->id);
  settle();
  transfers_.deliverCancellations();
  settle();
  EXPECT_EQ(waiting->status(), DownloadStatus::downloading);
  finish("clip.mp4");
  EXPECT_EQ(waiting->status(), DownloadStatus::completed);
}

// --- Over a restart ---

TEST_F(EngineTest, ATransferOfAnEarlierProcessFindsItsTaskWithItsFlags) {
  auto id = save("clip.mp4", true)->id;
  auto twin = save("clip.mp4")->id;
  settle();
  restart();
  ASSERT_EQ(engine_->getDownloads().size(), 2U);
  transfers_.writeData(url("clip.mp4"), 10, 100);
  finish("clip.mp4");  // of equal URLs the last made: the twin
  transfers_.complete(url("clip.mp4"));
  finish("clip.mp4");
  EXPECT_EQ(contents_.size(), 2U);
  auto tasks = engine_->getDownloads();
  EXPECT_TRUE(tasks[0]->id == id && tasks[0]->request.skipVideoFix);
  EXPECT_TRUE(tasks[1]->id == twin && !tasks[1]->request.skipVideoFix);

  const auto removed = save("b.mp4")->id;
  restart();
  transfers_.writeData(url("b.mp4"), 10, 100);
  engine_->removeDownload(removed);
  settle();
  EXPECT_NE(transfers_.task(url("b.mp4"))->state(), NSURLSessionTaskState::running) << "nobody waits for it";
}

TEST_F(EngineTest, WhatTheVersionBeforeHasStoredIsUnderstood) {
  engine_.reset();
  transfers_.makeBackgroundSession("downloads", {})
      ->downloadTask(url("clip.mp4"), R"({"id":1800000000,"skipVideoFix":true,"skipAudioFix":false})")
      ->resume();
  defaults_.setData("ActiveDownloads", bytesOf(R"([{"id":1800000000,"url":"http://127.0.0.1/clip.mp4","album":"Trips",)"
                                               R"("filename":"clip.mp4","status":"downloading"}])"));
  restart();
  const DownloadRequest asked{
      .url = url("clip.mp4"), .album = "Trips", .filename = "clip.mp4", .skipVideoFix = true, .skipAudioFix = false};
  ASSERT_EQ(engine_->getDownloads().size(), 1U);
  EXPECT_EQ(engine_->getDownloads()[0]->request, asked);
  dispatch_.hold(worker());
  finish("clip.mp4");
  EXPECT_NE(storedStates().find(R"("skipAVSync":true)"), std::string::npos) << storedStates();
  EXPECT_NE(storedStates().find(R"("album":"Trips")"), std::string::npos) << storedStates();

  const NotedDownload note{.id = 7, .request = asked};
  EXPECT_EQ(NotedDownload::parse(note.text()), note) << "and the version before finds what it knows";
  EXPECT_TRUE(note.text().starts_with(R"({"id":7,"skipVideoFix":true,"skipAudioFix":false,)"));
}

TEST_F(EngineTest, TheIdOfADownloadThatAKillHasHiddenIsNotGivenAgain) {
  engine_->setMaxConcurrentDownloads(1);
  save("a.mp4");
  const auto hidden = save("b.mp4")->id;
  engine_.reset();
  settle();
  defaults_.setData("ActiveDownloads", bytesOf("[]"));  // as before its last change
  start();
  const auto fresh = save("c.mp4");
  settle();
  EXPECT_NE(fresh->id, hidden);
  EXPECT_EQ(heard(), "") << "the end of the hidden one's transfer is not its own";
  const auto startAs = [&](int64_t id) {
    return engine_->startDownloadFileBy({.url = url("d.mp4"), .album = "Trips", .filename = "d.mp4"}, delegate_, id)
        ->id;
  };
  EXPECT_EQ(startAs(77), 77);
  EXPECT_NE(startAs(77), 77);
  EXPECT_NE(startAs(0), 0);
}

TEST_F(EngineTest, AStoredListThatIsDamagedCountsAsEmpty) {
  for (const char* text : {"[{\"id\":1}]", "{", "7", "[1,2"}) {
    defaults_.setData("ActiveDownloads", bytesOf(text));
    restart();
    EXPECT_TRUE(engine_->getDownloads().empty()) << text;
  }
  defaults_.setData("ActiveDownloads", bytesOf(R"([{"id":5,"url":"u","status":"stopped"}])"));
  restart();
  EXPECT_EQ(stored("ActiveDownloads"), R"([{"id":5,"url":"u","status":"unknown"}])");
}

/// The place of the stored records.
constexpr const char* recordsKey = ProcessingStateManager::userDefaultsKey;

TEST_F(EngineTest, AStoreThatCannotBeReadCostsNoVideo) {
  finishUnprocessed({"a.mp4", "b.mp4"});
  put(makeUUID() + ".m4a", "a temp file");
  const auto before = documents();
  const Path records = home_ / "Defaults" / recordsKey, elsewhere = home_ / "elsewhere";
  files_.moveItem(records, elsewhere);
  files_.createDirectory(records);  // it cannot be read as a file
  clock_.advance(std::chrono::hours(48));
  restart();
  cleanUp();
  save("b.mp4");
  finish("b.mp4");
  EXPECT_THAT(documents(), testing::UnorderedElementsAreArray(before)) << "the newcomer was saved under another name";
  EXPECT_EQ(contents_.back(), "content of b.mp4");
  files_.removeItem(records);
  files_.moveItem(elsewhere, records);
  resumeAll();
  EXPECT_EQ(contents(), "content of b.mp4 content of a.mp4 content of b.mp4");
}

TEST_F(EngineTest, ARecordThatDoesNotDecodeIsSetAsideAndCostsNoOther) {
  finishUnprocessed({"a.mp4", "b.mp4", "c.mp4"});
  std::string records = storedStates();
  records.replace(records.find("\"downloaded\"", records.find("b.mp4")), 12, "\"polishing\"");
  defaults_.setData(recordsKey, bytesOf(records));
  resumeAll();
  cleanUp();
  EXPECT_EQ(contents(), "content of a.mp4 content of c.mp4");
  EXPECT_EQ(storedStates(), "[]");
  EXPECT_THAT(documents(), testing::ElementsAre("b.mp4"));
  save("b.mp4");
  finish("b.mp4");
  EXPECT_EQ(contents_.back(), "content of b.mp4");
  EXPECT_THAT(documents(), testing::ElementsAre("b.mp4")) << "a newcomer does not replace it";
  const std::string aside = stored(ProcessingStateManager::setAsideKey);
  EXPECT_NE(aside.find("polishing"), std::string::npos) << aside;
  restart();
  EXPECT_EQ(stored(ProcessingStateManager::setAsideKey), aside);
}

TEST_F(EngineTest, RecordsOfLongAgoAreAllResumed) {
  finishUnprocessed({"a.mp4", "b.mp4", "c.mp4"});
  clock_.advance(std::chrono::hours(48));
  resumeAll();
  EXPECT_EQ(contents(), "content of a.mp4 content of b.mp4 content of c.mp4");

  // What waits in the line of a process that lives for long does not age either: a kill then loses nothing.
  finishUnprocessed({"d.mp4", "e.mp4"});
  clock_.advance(std::chrono::hours(48));
  cleanUp();
  cleanUp();
  resumeAll();
  EXPECT_EQ(contents_.size(), 5U);
}

// A kill between the two would let a transfer go on that belongs to no download.
TEST_F(EngineTest, NoTransferRunsBeforeTheListOfDownloadsKnowsIt) {
  int looks = 0;
  setLogSink([&](std::string_view) {
    for (const auto& transfer : transfers_.tasks()) {
      if (transfer->state() != NSURLSessionTaskState::running) continue;
      ++looks;
      EXPECT_THAT(stored("ActiveDownloads"), testing::HasSubstr(transfer->originalRequestURL()));
    }
  });
  save("clip.mp4");
  setLogSink({});
  EXPECT_GT(looks, 0);
}

TEST_F(EngineTest, ATransferThatNothingKnowsChangesNothing) {
  save("clip.mp4");
  defaults_.removeObject("ActiveDownloads");
  restart();
  transfers_.writeData(url("clip.mp4"), 1, 2);
  finish("clip.mp4");
  transfers_.complete(url("clip.mp4"));
  settle();
  EXPECT_TRUE(contents_.empty() && documents().empty());
}

TEST_F(EngineTest, TheSweepTakesWhatNothingRefersTo) {
  dispatch_.hold(worker());
  save("pending.mp4");
  finish("pending.mp4");
  const std::string uuid = makeUUID();
  const std::vector<std::string> leftovers = {uuid + ".m4a", uuid + ".mp4.tmp", "55.recipe", "55.side"};
  const std::vector<std::string> kept = {"clip.m4a", "clip.MP4", "noending", "clip.recipe"};
  const std::vector<std::string> orphans = {"orphan.mp4", "orphan.mov", "orphan.m4v", uuid + "_fixed.mp4"};
  for (const auto& names : {leftovers, kept, orphans}) {
    for (const auto& name : names) put(name, "x");
  }
  writeFileAtomically(files_, files_.temporaryDirectory() / "anything", bytesOf("x"));
  cleanUp();
  auto present = kept;
  present.insert(present.end(), leftovers.begin(), leftovers.end());
  present.push_back("pending.mp4");
  EXPECT_THAT(documents(), testing::UnorderedElementsAreArray(present));
  restart();
  EXPECT_THAT(documents(), testing::UnorderedElementsAreArray(kept)) << "what a killed process has left goes too";
  EXPECT_TRUE(files_.contentsOfDirectory(files_.temporaryDirectory()).empty());

  files_.removeItem(home_ / "Documents");
  cleanUp();  // somebody has taken the directory away
}

TEST_F(EngineTest, OldFinishedTasksGo) {
  save("clip.mp4");
  finish("clip.mp4");
  clock_.advance(std::chrono::seconds(86400));
  cleanUp();
  EXPECT_EQ(engine_->getDownloads().size(), 1U);
  clock_.advance(std::chrono::seconds(1));
  cleanUp();
  EXPECT_TRUE(engine_->getDownloads().empty());
}

}  // namespace
}  // namespace tarn::test
