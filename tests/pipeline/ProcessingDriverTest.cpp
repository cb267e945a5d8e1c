#include <gtest/gtest.h>

#include "pipeline/ProcessingDriver.h"
#include "pipeline/ProcessingGate.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"
#include "support/ScriptedStep.h"
#include "support/TestHome.h"

namespace tarn::test {
namespace {

using enum ProcessingStage;

/// The engine around the driver, as far as the driver sees it: the real gate and store, and a list of what was called.
class Engine : public ProcessingHost {
 public:
  Engine(ProcessingGate& gate, std::vector<std::string>& notes) : gate_(gate), notes_(notes) {}

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

class ProcessingDriverTest : public testing::Test, protected TestHome {
 protected:
  /// One whole run of state_, with its video and steps that enter all stages. What was called, in order.
  std::string run() {
    notes_.clear();
    put("clip.mp4", "video");
    store_.saveState(state_);
    const auto disturb = [this](ProcessingRun& run, ProcessingStage stage) {
      if (stage == transcodingPass2 && disturb_) disturb_(run);
    };
    ScriptedStep remux({remuxing, remuxed}, notes_, disturb);
    ScriptedStep audio({transcodingPass1, transcodingPass2, transcoded, audioReplacing, audioReplaced}, notes_,
                       disturb);
    ScriptedStep sync({syncFixing, syncFixed}, notes_, disturb);
    ScriptedStep last({savingToPhotos}, notes_, [this](ProcessingRun& run, ProcessingStage) {
      run.download->update([this](auto& fields) { fields.status = statusOfSave_; });
    });
    ProcessingDriver driver(files_, clock_, store_, names_, engine_,
                            {.remux = &remux, .audio = &audio, .sync = &sync, .last = &last});
    driver.continueProcessing(state_, task_, admit(state_).token);
    return joinedWords(notes_);
  }

  ProcessingGate::Admission admit(const ProcessingState& state) {
    return gate_.admit(state, [] { return true; });
  }

  ManualClock clock_;
  ProcessingStateManager store_{defaults_, files_, clock_};
  ProcessingGate gate_{store_};
  NamesInTheMaking names_;
  std::vector<std::string> notes_;
  Engine engine_{gate_, notes_};
  LogCapture lines_;
  ProcessingState state_{.downloadId = 7,
                         .filename = "clip.mp4",
                         .album = "Trips",
                         .fileURL = files_.documentsDirectory(true) / "clip.mp4",
                         .needsRemuxing = true,
                         .needsAudioTranscode = true};
  DownloadTaskPointer task_ = std::make_shared<DownloadTask>(files_, 7, "", "Trips", "clip.mp4");
  DownloadStatus statusOfSave_ = DownloadStatus::completed;
  std::function<void(ProcessingRun&)> disturb_;  ///< happens in transcodingPass2
};

const std::string remuxStages = "remuxing remuxed ";
const std::string syncStages = "syncFixing syncFixed ";
const std::string fromAudio = "transcodingPass1 transcodingPass2 transcoded audioReplacing audioReplaced " + syncStages;
const std::string savedEnding = "savingToPhotos replace remove release finished end";

TEST_F(ProcessingDriverTest, StoredStageAndFlagsDecideWhichStepsRun) {
  struct Row {
    ProcessingStage stored;
    std::string steps;
    bool needsRemuxing = true, needsAudioTranscode = true, skipAVSync = false;
    std::string line = {};    ///< one that the log holds
    bool wasSwapped = false;  ///< the file with the new audio has taken the video's place
  };
  const Row rows[] = {
      {downloaded, remuxStages + fromAudio},
      {remuxing, remuxStages + fromAudio},
      {remuxed, fromAudio},
      {transcodingPass1, fromAudio},
      {transcoded, fromAudio},
      {audioReplaced, syncStages},
      {syncFixing, syncStages},
      {syncFixed, "", true, true, false, "Resuming from checkpoint: A/V sync complete → starting Saving to Photos"},
      {audioReplacing, syncStages, true, true, false,
       "Interrupted at Replacing audio track, rolling back to checkpoint: Audio replacement complete", true},
      {savingToPhotos, "", true, true, true, "Skipping A/V sync fix - skipVideoFix is enabled"},
      {downloaded, fromAudio, false, true, false, "Skipping video remux - startStage=remuxing, needsRemuxing=false"},
      {downloaded, remuxStages, true, false, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(rawValue(row.stored));
    state_.stage = row.stored;
    state_.needsRemuxing = row.needsRemuxing;
    state_.needsAudioTranscode = row.needsAudioTranscode;
    state_.skipAVSync = row.skipAVSync;
    state_.tempFiles = {put("x.m4a", "audio"), home_ / "Documents/x_fixed.mp4"};
    if (!row.wasSwapped) put("x_fixed.mp4", "fixed");
    EXPECT_EQ(run(), row.steps + savedEnding);
    EXPECT_TRUE(row.line.empty() || lines_.contains(row.line));
    EXPECT_TRUE(files_.contentsOfDirectory(home_ / "Documents").empty());
    EXPECT_TRUE(store_.allStates().empty());
  }
}

TEST_F(ProcessingDriverTest, EachEndingLeavesWhatTheNextRunNeeds) {
  struct Row {
    std::function<void(ProcessingRun&)> disturb;
    std::string ending;
    std::optional<ProcessingStage> stored;  ///< of the record that is left
    bool keepsTempFile;
  };
  const auto isFailed = [](auto&) { throw Error("Test", -1, "the codec is on holiday"); };
  const auto isCancelled = [](ProcessingRun& run) { run.token->cancel(), run.token->throwIfCancelled(); };
  const auto isTakenBack = [this](auto&) { gate_.cancel(7), store_.removeState(7); };
  const auto isNotSaved = [this](auto&) { statusOfSave_ = DownloadStatus::failed; };
  const std::string rest = "transcoded audioReplacing audioReplaced ";
  for (const Row& row : {Row{isFailed, "replace release failedNotice end", failed, false},
                         {isCancelled, "end", transcodingPass2, true},
                         {isTakenBack, rest + "end", std::nullopt, true},
                         {isNotSaved, rest + syncStages + savedEnding, std::nullopt, false}}) {
    SCOPED_TRACE(row.ending);
    disturb_ = [&](ProcessingRun& run) {
      run.state.addTempFile(put("temp.m4a", "audio"));
      run.saveState();
      row.disturb(run);
    };
    EXPECT_EQ(run(), remuxStages + "transcodingPass1 transcodingPass2 " + row.ending);
    const auto record = store_.loadState(7);
    EXPECT_EQ(record ? std::optional(record->stage) : std::nullopt, row.stored);
    EXPECT_EQ(record && record->error == "the codec is on holiday", row.stored == failed);
    EXPECT_TRUE(files_.fileExists(state_.fileURL));
    EXPECT_EQ(files_.fileExists(home_ / "Documents/temp.m4a"), row.keepsTempFile);
    EXPECT_FALSE(gate_.activeRun());
  }
}

TEST_F(ProcessingDriverTest, ARunThatWasForgottenTouchesNothingOfTheNext) {
  auto next = state_;
  next.downloadId = 8;
  ProcessingGate::Token nextToken;
  disturb_ = [&](ProcessingRun&) {
    gate_.clear();
    store_.clearAllStates();
    nextToken = admit(next).token;
    EXPECT_TRUE(gate_.holds(7)) << "its id must not be given away while it goes on";
  };
  EXPECT_EQ(run(), remuxStages + fromAudio + savedEnding);
  EXPECT_EQ(gate_.activeRun(), 8);
  EXPECT_FALSE(nextToken->isCancelled());
  EXPECT_TRUE(store_.allStates().empty()) << "it must not bring its record back";
}

TEST_F(ProcessingDriverTest, TheGateSkipsTheForgottenAndLetsNoneThroughOnceItIsClosed) {
  const auto record = [](int64_t id) { return ProcessingState{.downloadId = id, .fileURL = "/clip.mp4"}; };
  const auto isKnown = [](int64_t id) { return id != 2; };
  const auto first = admit(record(1));
  for (int64_t id : {2, 3, 4}) EXPECT_EQ(admit(record(id)).position, static_cast<size_t>(id - 1));
  EXPECT_TRUE(gate_.admit(record(5), [] { return false; }).isRefused);
  store_.saveState(record(6));
  EXPECT_FALSE(gate_.resume(6)) << "a run is active";

  auto next = gate_.endRun(first.token, isKnown);
  ASSERT_TRUE(next.start);
  EXPECT_EQ(next.start->state.downloadId, 3);
  EXPECT_FALSE(gate_.endRun(first.token, isKnown).wasCurrent) << "a run ends once";
  gate_.close();
  EXPECT_FALSE(gate_.endRun(next.start->token, isKnown).start) << "the line waits";
  EXPECT_FALSE(gate_.resume(6));
}

}  // namespace
}  // namespace tarn::test
