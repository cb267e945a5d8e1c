#include <gtest/gtest.h>

#include "pipeline/ProcessingDriver.h"
#include "pipeline/ProcessingGate.h"
#include "platform/host/PosixFileManager.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"
#include "support/ScriptedStep.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

using enum ProcessingStage;

/// The engine around the driver, as far as the driver sees it: the real gate and store, and a list of what was called.
class Engine : public ProcessingHost {
 public:
  explicit Engine(ProcessingGate& gate, std::vector<std::string>& notes) : gate_(gate), notes_(notes) {}

  bool saveRecord(const CancellationToken& token, const ProcessingState& record) override {
    return gate_.saveRecord(token, record);
  }
  void progressUpdated(const DownloadTaskPointer&, double, const std::string&) override {}
  void replaceDownload(const DownloadTaskPointer&) override { notes_.push_back("replace"); }
  void removeRecord(const CancellationToken& token, int64_t id) override {
    notes_.push_back("remove");
    gate_.removeRecord(token, id);
  }
  void releaseBackgroundTimeAndSlot(int64_t) override { notes_.push_back("release"); }
  void notifyFinished(const DownloadTaskPointer&, const Path&) override { notes_.push_back("finished"); }
  void notifyFailed(const DownloadTaskPointer&) override { notes_.push_back("failedNotice"); }
  void endRun(const Token& token) override {
    notes_.push_back("end");
    gate_.endRun(token, [](int64_t) { return true; });
  }

 private:
  ProcessingGate& gate_;
  std::vector<std::string>& notes_;
};

class ProcessingDriverTest : public testing::Test {
 protected:
  ProcessingDriverTest() {
    state_.downloadId = 7;
    state_.filename = "clip.mp4";
    state_.album = "Trips";
    state_.fileURL = files_.documentsDirectory(true) / "clip.mp4";
    state_.needsRemuxing = true;
    state_.needsAudioTranscode = true;
    writeFileAtomically(files_, state_.fileURL, bytesOf("video"));
  }

  ScriptedStep savingStep() {
    return ScriptedStep({savingToPhotos}, notes_, [this](ProcessingRun& run, ProcessingStage stage) {
      during(run, stage);
      run.download->update([this](DownloadTask::Snapshot& fields) {
        fields.status = saveFails_ ? DownloadStatus::failed : DownloadStatus::completed;
      });
    });
  }

  void during(ProcessingRun& run, ProcessingStage stage) {
    if (stage == stopAt_) stop_(run);
  }

  /// One whole run of state_, with steps that enter all stages. What was called, in order.
  std::string run() {
    notes_.clear();
    store_.saveState(state_);
    auto note = [this](ProcessingRun& run, ProcessingStage stage) { during(run, stage); };
    ScriptedStep remux({remuxing, remuxed}, notes_, note);
    ScriptedStep audio({transcodingPass1, transcodingPass2, transcoded, audioReplacing, audioReplaced}, notes_, note);
    ScriptedStep sync({syncFixing, syncFixed}, notes_, note);
    ScriptedStep last = savingStep();
    ProcessingDriver driver(files_, clock_, store_, names_, engine_,
                            {.remux = &remux, .audio = &audio, .sync = &sync, .last = &last});
    token_ = gate_.admit(state_, [] { return true; }).token;
    driver.continueProcessing(state_, task_, token_);
    EXPECT_FALSE(gate_.activeRun()) << "every run frees the gate";
    return joinedWords(notes_);
  }

  TempDirectory home_;
  PosixFileManager files_{home_.path()};
  UserDefaults defaults_{files_, home_.path() / "Defaults"};
  ManualClock clock_;
  ProcessingStateManager store_{defaults_, files_, clock_};
  ProcessingGate gate_{store_};
  NamesInTheMaking names_;
  std::vector<std::string> notes_;
  Engine engine_{gate_, notes_};
  LogCapture lines_;
  ProcessingState state_;
  DownloadTaskPointer task_ = std::make_shared<DownloadTask>(files_, 7, "", "Trips", "clip.mp4");
  ProcessingGate::Token token_;
  bool saveFails_ = false;
  std::optional<ProcessingStage> stopAt_;
  std::function<void(ProcessingRun&)> stop_;
};

constexpr const char* remuxStages = "remuxing remuxed ";
constexpr const char* audioStages = "transcodingPass1 transcodingPass2 transcoded audioReplacing audioReplaced ";
constexpr const char* syncStages = "syncFixing syncFixed ";
constexpr const char* savedEnding = "savingToPhotos replace remove release finished end";

TEST_F(ProcessingDriverTest, AStoredStageDecidesWhichStepsRunAgain) {
  struct Row {
    ProcessingStage stored;
    std::string steps;
  };
  const std::string fromAudio = std::string(audioStages) + syncStages;
  const Row rows[] = {
      {downloaded, remuxStages + fromAudio},
      {remuxing, remuxStages + fromAudio},
      {remuxed, fromAudio},
      {transcodingPass1, fromAudio},
      {transcodingPass2, fromAudio},
      {transcoded, fromAudio},
      {audioReplacing, fromAudio},
      {audioReplaced, syncStages},
      {syncFixing, syncStages},
      {syncFixed, ""},
      {savingToPhotos, ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(rawValue(row.stored));
    writeFileAtomically(files_, state_.fileURL, bytesOf("video"));
    const Path temp = state_.fileURL.parent_path() / "temp.m4a";
    writeFileAtomically(files_, temp, bytesOf("audio"));
    const Path fixed = state_.fileURL.parent_path() / "x_fixed.mp4";
    writeFileAtomically(files_, fixed, bytesOf("fixed"));
    state_.stage = row.stored;
    state_.tempFiles = {temp, fixed};
    EXPECT_EQ(run(), row.steps + savedEnding);
    EXPECT_FALSE(files_.fileExists(temp) || files_.fileExists(fixed) || files_.fileExists(state_.fileURL));
    EXPECT_TRUE(store_.allStates().empty());
  }
}

TEST_F(ProcessingDriverTest, AnAudioSwapThatWasDoneIsNotDoneAgain) {
  const Path audio = state_.fileURL.parent_path() / "x.m4a";
  writeFileAtomically(files_, audio, bytesOf("audio"));
  state_.stage = audioReplacing;
  state_.tempFiles = {audio, state_.fileURL.parent_path() / "x_fixed.mp4"};
  EXPECT_EQ(run(), std::string(syncStages) + savedEnding);
  EXPECT_TRUE(
      lines_.contains("Interrupted at Replacing audio track, rolling back to checkpoint: Audio replacement complete"));
  EXPECT_FALSE(files_.fileExists(audio));
}

TEST_F(ProcessingDriverTest, FlagsLeaveStepsOut) {
  state_.needsRemuxing = false;
  state_.needsAudioTranscode = false;
  EXPECT_EQ(run(), std::string(syncStages) + savedEnding);
  EXPECT_TRUE(lines_.contains("Skipping video remux - startStage=remuxing, needsRemuxing=false"));
  writeFileAtomically(files_, state_.fileURL, bytesOf("video"));
  state_.skipAVSync = true;
  state_.stage = syncFixed;
  EXPECT_EQ(run(), savedEnding);
  EXPECT_TRUE(lines_.contains("Skipping A/V sync fix - skipVideoFix is enabled"));
  EXPECT_TRUE(lines_.contains("Resuming from checkpoint: A/V sync complete → starting Saving to Photos"));
}

TEST_F(ProcessingDriverTest, AFailureKeepsRecordAndFileAndDeletesTempFiles) {
  const Path temp = state_.fileURL.parent_path() / "temp.m4a";
  stopAt_ = transcodingPass2;
  stop_ = [&](ProcessingRun& run) {
    writeFileAtomically(files_, temp, bytesOf("audio"));
    run.state.addTempFile(temp);
    run.saveState();
    throw Error("Test", -1, "the codec is on holiday");
  };
  EXPECT_EQ(run(), std::string(remuxStages) + "transcodingPass1 transcodingPass2 replace release failedNotice end");
  auto record = store_.loadState(7);
  ASSERT_TRUE(record);
  EXPECT_EQ(record->stage, failed);
  EXPECT_EQ(record->error, "the codec is on holiday");
  EXPECT_TRUE(store_.allPendingStates().empty());
  EXPECT_TRUE(files_.fileExists(state_.fileURL));
  EXPECT_FALSE(files_.fileExists(temp));
  EXPECT_EQ(task_->snapshot().reason.description(), "ERROR_UNKNOWN");
}

TEST_F(ProcessingDriverTest, AFailedSaveEndsTheRunAndKeepsTheFile) {
  saveFails_ = true;
  EXPECT_TRUE(run().ends_with(savedEnding));
  EXPECT_TRUE(store_.allStates().empty());
  EXPECT_TRUE(files_.fileExists(state_.fileURL));
}

TEST_F(ProcessingDriverTest, ACancellationLeavesTheStoredStageForAResume) {
  stopAt_ = remuxing;
  stop_ = [](ProcessingRun& run) {
    run.token->cancel();
    run.token->throwIfCancelled();
  };
  EXPECT_EQ(run(), "remuxing end");
  EXPECT_EQ(store_.loadState(7)->stage, remuxing);
  EXPECT_TRUE(files_.fileExists(state_.fileURL));
  stopAt_.reset();
  state_ = *store_.loadState(7);
  EXPECT_EQ(run(), std::string(remuxStages) + audioStages + syncStages + savedEnding);
}

TEST_F(ProcessingDriverTest, ARunThatWasTakenBackStoresNothingMore) {
  stopAt_ = remuxing;
  stop_ = [this](ProcessingRun&) {
    EXPECT_EQ(gate_.cancel(7), ProcessingGate::Cancelled::activeRun);
    store_.removeState(7);
  };
  EXPECT_EQ(run(), "remuxing remuxed end") << "the next step sees the token";
  EXPECT_TRUE(store_.allStates().empty());
}

TEST_F(ProcessingDriverTest, ARunThatWasForgottenTouchesNothingOfTheNext) {
  auto next = state_;
  next.downloadId = 8;
  ProcessingGate::Token nextToken;
  stopAt_ = syncFixing;
  stop_ = [&](ProcessingRun&) {
    gate_.clear();
    store_.clearAllStates();
    nextToken = gate_.admit(next, [] { return true; }).token;
    EXPECT_TRUE(gate_.holds(7)) << "its id must not be given away while it goes on";
    stopAt_.reset();
  };
  store_.saveState(state_);
  ScriptedStep sync({syncFixing, syncFixed}, notes_, [this](auto& run, auto stage) { during(run, stage); });
  ScriptedStep last = savingStep();
  ProcessingDriver driver(files_, clock_, store_, names_, engine_, {.sync = &sync, .last = &last});
  driver.continueProcessing(state_, task_, gate_.admit(state_, [] { return true; }).token);
  EXPECT_EQ(gate_.activeRun(), 8);
  EXPECT_FALSE(nextToken->isCancelled());
  EXPECT_TRUE(store_.allStates().empty()) << "it must not bring its record back";
}

TEST(ProcessingGateTest, OneRunAtATimeAndTheLineInItsOrder) {
  TempDirectory home;
  PosixFileManager files(home.path());
  UserDefaults defaults(files, home.path() / "Defaults");
  ManualClock clock;
  ProcessingStateManager store(defaults, files, clock);
  ProcessingGate gate(store);
  auto wanted = [] { return true; };
  auto record = [](int64_t id) {
    ProcessingState state;
    state.downloadId = id;
    state.fileURL = "/clip.mp4";
    return state;
  };
  auto first = gate.admit(record(1), wanted);
  ASSERT_TRUE(first.token);
  EXPECT_EQ(gate.admit(record(2), wanted).position, 1U);
  EXPECT_EQ(gate.admit(record(3), wanted).position, 2U);
  EXPECT_EQ(gate.admit(record(4), wanted).currentId, 1);
  EXPECT_TRUE(gate.admit(record(5), [] { return false; }).isRefused);
  store.saveState(record(6));
  EXPECT_FALSE(gate.resume(6)) << "a run is active";

  auto next = gate.endRun(first.token, [](int64_t id) { return id != 2; });
  ASSERT_TRUE(next.start);
  EXPECT_EQ(next.start->state.downloadId, 3);
  EXPECT_EQ(next.skipped, std::vector<int64_t>{2});
  EXPECT_EQ(next.waiting, std::vector<int64_t>{4});
  EXPECT_FALSE(gate.endRun(first.token, [](int64_t) { return true; }).wasCurrent) << "a run ends once";

  EXPECT_EQ(gate.expire()->downloadId, 3);
  EXPECT_TRUE(next.start->token->isCancelled());
  EXPECT_TRUE(store.loadState(3));
  gate.close();
  EXPECT_FALSE(gate.endRun(next.start->token, [](int64_t) { return true; }).start) << "closed: the line waits";
  EXPECT_FALSE(gate.resume(6));
}

}  // namespace
}  // namespace tarn::test
