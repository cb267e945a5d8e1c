#include <gtest/gtest.h>

#include <filesystem>

#include "platform/host/PosixFileManager.h"
#include "support/LogCapture.h"
#include "support/TempDirectory.h"
#include "sync/FlashBeep.h"
#include "sync/MP4AVSyncFixer.h"
#include "sync/SyncStep.h"

namespace tarn::test {
namespace {

class StageRecorder : public ProcessingRunListener {
 public:
  bool saveRecord(const CancellationToken&, const ProcessingState& record) override {
    stages += std::string(rawValue(record.stage)) + " ";
    if (onSave) onSave();
    return true;
  }
  void progressUpdated(const std::shared_ptr<DownloadTask>&, double, const std::string&) override {}

  std::string stages;
  std::function<void()> onSave;
};

class SyncSteps : public testing::Test {
 protected:
  ProcessingRun runOn(const Path& file) {
    ProcessingState state;
    state.fileURL = file;
    return ProcessingRun(files_, clock_, names_, recorder_, state, nullptr, token_);
  }

  TempDirectory directory_;
  PosixFileManager files_{directory_.path()};
  SystemClock clock_;
  NamesInTheMaking names_;
  StageRecorder recorder_;
  std::shared_ptr<CancellationToken> token_ = std::make_shared<CancellationToken>();
  LogCapture log_;
};

TEST_F(SyncSteps, CarryTheSourcesFactsToTheFix) {
  Path file = directory_ / "clip.mp4";
  std::filesystem::copy_file(flashBeepClip(0.3), file);
  auto run = runOn(file);
  run.originalSyncInfo = MP4AVSyncFixer::readOriginalSyncInfo(files_, file);
  SyncStep().run(run);
  EXPECT_EQ(recorder_.stages, "syncFixing syncFixed ");
  EXPECT_TRUE(log_.contains("A/V sync fix applied successfully"));
  EXPECT_GT(run.timings.avSyncFixTotal, run.timings.avSyncFix.writeMoov);
  EXPECT_TRUE(names_.tryHold(file));
}

TEST_F(SyncSteps, KeepFailuresButNotACancellationToThemselves) {
  auto run = runOn(directory_ / "none.mp4");
  SyncStep().run(run);
  EXPECT_EQ(recorder_.stages, "syncFixing syncFixed ");
  EXPECT_TRUE(log_.contains("A/V sync fix error (non-critical): MP4 file not found"));
  EXPECT_EQ(run.timings.avSyncFixTotal, 0);

  recorder_.stages.clear();
  recorder_.onSave = [&] { token_->cancel(); };
  EXPECT_THROW(SyncStep().run(run), CancellationError);
  EXPECT_EQ(recorder_.stages, "syncFixing ");
  EXPECT_TRUE(log_.contains("A/V sync fix error (non-critical): Operation was cancelled"));
}

}  // namespace
}  // namespace tarn::test
