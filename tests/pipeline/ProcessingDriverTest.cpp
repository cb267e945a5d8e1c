#include <gtest/gtest.h>

#include "pipeline/ProcessingDriver.h"
#include "pipeline/ProcessingGate.h"
#include "support/FaultyFileManager.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"
#include "support/ScriptedStep.h"
#include "support/TestHome.h"

namespace tarn::test {
namespace {

using enum ProcessingStage;

/// The engine around the driver, as far as the driver sees it: the real gate and store, and a list of what was called.
class Engine : public RunListener {
 public:
  Engine(ProcessingGate& gate, std::vector<std::string>& notes) : gate_(gate), notes_(notes) {}

  bool saveRecord(const CancellationToken& token, const ProcessingState& record) override {
    return gate_.saveRecord(token, record);
  }
  bool ended(const ProcessingRun& run) override {
    const char* const names[] = {"saved", "failed", "cancelled"};
    notes_.push_back(names[static_cast<size_t>(run.outcome.kind)]);
    if (!run.outcome.words.empty()) notes_.push_back(run.outcome.words);
    if (run.outcome.isDiskFull) notes_.emplace_back("(no room)");
    return gate_.endRun(run.token, run.outcome, [](int64_t) { return true; }).wasTakenAway;
  }

 private:
  ProcessingGate& gate_;
  std::vector<std::string>& notes_;
};

/// A step without a stage of its own.
class FirstStep : public ProcessingStep {
 public:
  using Work = std::function<void(ProcessingRun&)>;
  explicit FirstStep(Work work) : work_(std::move(work)) {}
  ProcessingStage gateStage() const override { return remuxing; }
  void run(ProcessingRun& run) override { work_(run); }

 private:
  const Work work_;
};

class ProcessingDriverTest : public testing::Test, protected TestHome {
 protected:
  /// One whole run of state_, with its video and steps that enter all stages. What was called, in order.
  std::string run() {
    notes_.clear();
    if (!files_.fileExists(state_.fileURL)) put(state_.fileURL.filename().native(), "video");
    store_.saveState(state_);
    const auto disturb = [this](ProcessingRun& run, ProcessingStage stage) {
      if (stage == transcodingPass2 && disturb_) disturb_(run);
    };
    FirstStep first(first_);
    ScriptedStep remux({remuxing, remuxed}, notes_, disturb);
    ScriptedStep audio({transcodingPass1, transcodingPass2, transcoded, audioReplacing, audioReplaced}, notes_,
                       disturb);
    ScriptedStep sync({syncFixing, syncFixed}, notes_, disturb);
    ScriptedStep last({savingToPhotos}, notes_, [this](ProcessingRun& run, ProcessingStage) {
      result_ = textOf(readFile(files_, run.fileURL));
      outcome_ = run.outcome;
      if (isSaved_) return run.outcome.setSaved();
      const Error failure("Test", -1, "the album is full");
      run.outcome.setFailed(RunOutcome::Where::saving, std::make_exception_ptr(failure));
    });
    ProcessingDriver driver(faulty_, clock_, store_, names_, engine_,
                            {.fragments = first_ ? &first : nullptr,
                             .remux = &remux,
                             .audio = &audio,
                             .sync = &sync,
                             .last = &last,
                             .deriveFlags = deriveFlags_,
                             .readTimeline = lengthOf},
                            RunFiles::layered);
    driver.continueProcessing(state_, admit(state_).token);
    return joinedWords(notes_);
  }

  /// Stands for what a file shows, its length, as far as that can be told.
  static std::optional<RepairSummary::Timeline> lengthOf(FileManager& files, const Path& file) {
    try {
      return RepairSummary::Timeline{.video = {{0, static_cast<double>(readFile(files, file).size())}}};
    } catch (const Error&) {
      return std::nullopt;
    }
  }
  static double shown(const std::optional<RepairSummary::Timeline>& timeline) {
    return timeline ? timeline->video.front().end : -1;
  }

  /// What a worker does: a file beside the video is written and takes its place.
  static void rewrite(ProcessingRun& run) {
    const Path made = run.fileURL.parent_path() / "made.mp4";
    run.files.open(made, OpenMode::exclusive)->write(bytesOf("repaired"));
    run.files.replaceItem(run.fileURL, made);
  }

  FirstStep::Work joins() {
    return [this](ProcessingRun& run) {
      notes_.emplace_back("joined");
      run.files.open(run.fileURL, OpenMode::creating)->write(bytesOf("plain"));
    };
  }
  static void stop(ProcessingRun& run) {
    run.token->cancel();
    run.token->throwIfCancelled();
  }

  static ProcessingState recordOf(int64_t id) { return {.downloadId = id, .fileURL = "/clip.mp4"}; }
  ProcessingGate::Admission admit(const ProcessingState& state) {
    return gate_.admit(state, [] { return true; });
  }
  std::optional<ProcessingGate::Start> resume(int64_t id) {
    return gate_.resume(id, [](const ProcessingState&) { return true; });
  }

  FaultyFileManager faulty_{files_};
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
  const Path recipe_ = home_ / "Documents/7.recipe", side_ = home_ / "Documents/7.side";
  bool isSaved_ = true;
  RunOutcome outcome_;                           ///< as the last step found it
  std::string result_;                           ///< the video on the disk, as the last step found it
  std::function<void(ProcessingRun&)> disturb_;  ///< happens in transcodingPass2
  FirstStep::Work first_;
  std::function<void(FileManager&, ProcessingState&)> deriveFlags_;
};

const std::string remuxStages = "remuxing remuxed ";
const std::string syncStages = "syncFixing syncFixed ";
const std::string fromAudio = "transcodingPass1 transcodingPass2 transcoded audioReplacing audioReplaced " + syncStages;
const std::string savedEnding = "savingToPhotos saved";

TEST_F(ProcessingDriverTest, StoredStageAndFlagsDecideWhichStepsRun) {
  struct Row {
    ProcessingStage stored;
    std::string steps;
    bool needsRemuxing = true, needsAudioTranscode = true, skipAVSync = false;
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
      {syncFixed, ""},
      {audioReplacing, syncStages, true, true, false, true},
      {savingToPhotos, "", true, true, true},
      {downloaded, fromAudio, false},
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
    EXPECT_TRUE(files_.contentsOfDirectory(home_ / "Documents").empty());
    EXPECT_TRUE(store_.allStates().empty());
  }
}

TEST_F(ProcessingDriverTest, WhatIsAskedForFollowsTheFileThatTheFirstStepLeaves) {
  first_ = joins();
  std::string seen;
  deriveFlags_ = [&](FileManager& files, ProcessingState& record) {
    seen = textOf(readFile(files, record.fileURL));
    record.needsRemuxing = false;
  };
  std::optional<ProcessingState> stored;
  disturb_ = [&](ProcessingRun&) { stored = store_.loadState(7); };
  EXPECT_EQ(run(), "joined " + fromAudio + savedEnding);
  EXPECT_EQ(seen, "plain");
  ASSERT_TRUE(stored);
  EXPECT_FALSE(stored->needsRemuxing);
  EXPECT_TRUE(stored->needsAudioTranscode);

  state_.needsRemuxing = false;
  EXPECT_EQ(run(), fromAudio + savedEnding);
  state_.needsRemuxing = true;
  state_.stage = remuxed;
  EXPECT_EQ(run(), fromAudio + savedEnding);
  state_.stage = downloaded;
  state_.areFlagsFinal = true;
  EXPECT_EQ(run(), "joined " + remuxStages + fromAudio + savedEnding);
}

TEST_F(ProcessingDriverTest, ARunThatStartsOverAsksForAllThatTheRequestDid) {
  first_ = joins();
  state_.needsAudioTranscode = false;
  deriveFlags_ = [](FileManager&, ProcessingState& record) {
    record.areFlagsFinal = true;
    record.needsRemuxing = false;
    record.needsAudioTranscode = true;
    record.skipAVSync = true;
  };
  disturb_ = [](ProcessingRun& run) { rewrite(run), stop(run); };
  const std::string stopped = "transcodingPass1 transcodingPass2 cancelled";
  EXPECT_EQ(run(), "joined " + stopped);
  state_ = store_.loadState(7).value();
  EXPECT_EQ(run(), stopped) << "what was joined is there still";
  files_.open(recipe_, OpenMode::updating)->truncate(1);
  state_ = store_.loadState(7).value();
  EXPECT_EQ(run(), "joined " + stopped);
}

TEST_F(ProcessingDriverTest, EachEndingLeavesWhatTheNextRunNeeds) {
  struct Row {
    std::function<void(ProcessingRun&)> disturb;
    std::string ending;
    std::optional<ProcessingStage> stored;  ///< of the record that is left
    bool keepsTempFile;
    bool keepsVideo = true;
  };
  const auto isFailed = [](auto&) { throw Error("Test", -1, "the codec is on holiday"); };
  const auto isTakenBack = [this](ProcessingRun& run) { gate_.cancel(7), readFile(run.files, run.fileURL); };
  const auto isNotSaved = [this](auto&) { isSaved_ = false; };
  const auto isHidden = [](ProcessingRun& run) {
    run.token->cancel();
    throw Error("Test", -1, "the copy ended early");
  };
  const std::string rest = "transcoded audioReplacing audioReplaced ";
  for (const Row& row :
       {Row{isFailed, "failed the codec is on holiday", failed, false},
        {stop, "cancelled", transcodingPass2, true},
        {isHidden, "cancelled", transcodingPass2, true},
        {isTakenBack, "cancelled", std::nullopt, false, false},
        {isNotSaved, rest + syncStages + "savingToPhotos failed the album is full", std::nullopt, false}}) {
    SCOPED_TRACE(row.ending);
    disturb_ = [&](ProcessingRun& run) {
      run.state.addTempFile(put("temp.m4a", "audio"));
      run.saveState();
      rewrite(run);
      row.disturb(run);
    };
    EXPECT_EQ(run(), remuxStages + "transcodingPass1 transcodingPass2 " + row.ending);
    const auto record = store_.loadState(7);
    EXPECT_EQ(record ? std::optional(record->stage) : std::nullopt, row.stored);
    EXPECT_EQ(record && record->error == "the codec is on holiday", row.stored == failed);
    EXPECT_EQ(files_.fileExists(state_.fileURL), row.keepsVideo);
    EXPECT_EQ(files_.fileExists(home_ / "Documents/temp.m4a"), row.keepsTempFile);
    EXPECT_EQ(files_.fileExists(recipe_), row.keepsTempFile);
    EXPECT_EQ(files_.fileExists(side_), row.keepsTempFile);
    EXPECT_FALSE(gate_.activeRun());
  }
}

TEST_F(ProcessingDriverTest, AnInterruptedRunGoesOnFromItsRecipeAndWithoutOneFromTheStart) {
  for (const Path& damaged : {Path(), recipe_, side_}) {
    SCOPED_TRACE(damaged);
    state_.stage = downloaded;
    disturb_ = [](ProcessingRun& run) {
      run.state.addTempFile(run.fileURL.parent_path() / "x.m4a");
      run.files.open(run.state.tempFiles.front(), OpenMode::exclusive)->write(bytesOf("sound"));
      for (int i = 0; i < 2; ++i) run.mended("a gap", "filled it");
      run.keepPart("the end is missing");
      run.saveState();
      rewrite(run);
      stop(run);
    };
    run();
    EXPECT_EQ(textOf(readFile(files_, state_.fileURL)), "video");
    state_ = store_.loadState(7).value();
    EXPECT_EQ(state_.stage, transcodingPass2);
    if (!damaged.empty()) files_.open(damaged, OpenMode::updating)->truncate(1);
    disturb_ = {};
    clock_.advance(std::chrono::seconds(1));
    first_ = [this](ProcessingRun&) { EXPECT_EQ(store_.loadState(7)->lastUpdated, clock_.now()); };
    EXPECT_EQ(run(), (damaged.empty() ? "" : remuxStages) + fromAudio + savedEnding);
    first_ = {};
    EXPECT_EQ(result_, damaged.empty() ? "repaired" : "video");
    using Sentences = std::vector<std::string>;
    const RepairSummary& summary = outcome_.summary;
    EXPECT_EQ(summary.wrong, damaged.empty() ? Sentences{"a gap"} : Sentences());
    EXPECT_EQ(summary.done, damaged.empty() ? Sentences{"filled it"} : Sentences());
    EXPECT_EQ(outcome_.leftAlone, damaged.empty() ? Sentences{"the end is missing"} : Sentences());
    EXPECT_EQ(outcome_.isPartly, damaged.empty());
    EXPECT_EQ(shown(summary.before), 5) << "the source, as it was";
    EXPECT_EQ(shown(summary.after), damaged.empty() ? 8 : 5);
    EXPECT_TRUE(files_.contentsOfDirectory(home_ / "Documents").empty());
  }
}

TEST_F(ProcessingDriverTest, AFullDiskIsSeenThoughTheWorkerMakesAnotherFailureOfIt) {
  disturb_ = [&](ProcessingRun& run) {
    faulty_.arm({.errnum = ENOSPC, .lasting = true, .among = {FileOperation::write}});
    try {
      rewrite(run);
    } catch (const Error&) {
      throw Error("Worker", -1, "cannot write");
    }
  };
  EXPECT_EQ(run(), remuxStages + "transcodingPass1 transcodingPass2 failed cannot write (no room)");
}

// A record may have lost the names of its temp files; and the video may be called like one of them.
TEST_F(ProcessingDriverTest, TheNamesInTheRecipeTellWhetherTheSoundWasSwapped) {
  state_.fileURL.replace_filename("clip_fixed.mp4");
  for (const std::string when : {"after the swap", "before it", "before the new sound"}) {
    SCOPED_TRACE(when);
    const bool wasSwapped = when == "after the swap", hasSound = when != "before the new sound";
    state_.stage = downloaded;
    disturb_ = [&](ProcessingRun& run) {
      const Path documents = run.fileURL.parent_path(), fixed = documents / (hasSound ? "x_fixed.mp4" : "x.mp4");
      if (hasSound) run.files.open(documents / "x.m4a", OpenMode::exclusive)->write(bytesOf("sound"));
      run.files.open(fixed, OpenMode::exclusive)->write(bytesOf("repaired"));
      run.files.synchronizeDirectory(documents);
      if (wasSwapped) run.files.replaceItem(run.fileURL, fixed);
      stop(run);
    };
    run();
    state_.stage = audioReplacing;
    disturb_ = {};
    EXPECT_EQ(run(), (wasSwapped ? syncStages : fromAudio) + savedEnding);
    EXPECT_EQ(result_, wasSwapped ? "repaired" : "video");
  }
}

TEST_F(ProcessingDriverTest, ARunThatWasForgottenTouchesNothingOfTheNext) {
  auto next = state_;
  next.downloadId = 8;
  ProcessingGate::Token nextToken;
  disturb_ = [&](ProcessingRun& forgotten) {
    gate_.clear();
    EXPECT_TRUE(forgotten.token->isCancelled());
    nextToken = admit(next).token;
    EXPECT_TRUE(gate_.holds(7)) << "its id must not be given away while it goes on";
  };
  EXPECT_EQ(run(), remuxStages + fromAudio + "cancelled") << "and so it is asked before it saves";
  EXPECT_EQ(gate_.activeRun(), 8);
  EXPECT_FALSE(nextToken->isCancelled());
  EXPECT_TRUE(store_.allStates().empty()) << "it must not bring its record back";
}

TEST_F(ProcessingDriverTest, TheGateLetsNoneThroughOnceItIsClosed) {
  const auto first = admit(recordOf(1));
  EXPECT_EQ(admit(recordOf(2)).position, 1U);
  store_.removeState(1);
  EXPECT_EQ(gate_.expire()->downloadId, 1);
  EXPECT_TRUE(store_.loadState(1) && first.token->isCancelled()) << "what ends with the background time is stored";
  store_.saveState(recordOf(3));
  gate_.close();
  EXPECT_FALSE(gate_.endRun(first.token, {}, [](int64_t) { return true; }).start) << "the line waits";
  EXPECT_FALSE(resume(3));
}

TEST_F(ProcessingDriverTest, TheGateStartsNothingThatSomebodyHasInHandOrTookAway) {
  for (int64_t id : {1, 2}) store_.saveState(recordOf(id));
  EXPECT_TRUE(gate_.admit(recordOf(3), [] { return false; }).isRefused);
  EXPECT_FALSE(gate_.resume(1, [](const ProcessingState&) { return false; }));
  EXPECT_EQ(gate_.activeRun(), std::nullopt) << "whoever cancelled it was first";
  {
    const ProcessingGate::HandOver handOver(gate_, 1);
    EXPECT_FALSE(resume(1));
    EXPECT_TRUE(gate_.cancel(1).files.empty()) << "whoever hands it over sees to its file";
  }
  EXPECT_FALSE(resume(1)) << "gate and store are left in one step";
  const auto run = resume(2);
  ASSERT_TRUE(run);
  gate_.clear();
  store_.saveState(recordOf(2));
  EXPECT_FALSE(resume(2)) << "its first run goes on";
  gate_.endRun(run->token, {}, [](int64_t) { return true; });
  EXPECT_TRUE(resume(2));
}

}  // namespace
}  // namespace tarn::test
