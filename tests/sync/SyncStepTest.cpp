#include <filesystem>

#include "support/FlashBeep.h"
#include "support/StepTest.h"
#include "sync/MP4AVSyncFixer.h"
#include "sync/SyncStep.h"

namespace tarn::test {
namespace {

class SyncSteps : public StepTest {};

TEST_F(SyncSteps, CarryTheSourcesFactsToTheFix) {
  std::filesystem::copy_file(flashBeepClip(0.3), file_);
  ProcessingRun run = newRun();
  run.originalSyncInfo = MP4AVSyncFixer::readOriginalSyncInfo(files_, file_);
  SyncStep().run(run);
  EXPECT_EQ(stages_, "syncFixing syncFixed ");
  EXPECT_TRUE(log_.contains("A/V sync fix applied successfully"));
  EXPECT_GT(run.timings.avSyncFixTotal, run.timings.avSyncFix.writeMoov);
  EXPECT_TRUE(names_.tryHold(file_));
}

TEST_F(SyncSteps, KeepFailuresButNotACancellationToThemselves) {
  ProcessingRun run = newRun();
  SyncStep().run(run);
  EXPECT_EQ(stages_, "syncFixing syncFixed ");
  EXPECT_TRUE(log_.contains("A/V sync fix error (non-critical): MP4 file not found"));
  EXPECT_EQ(run.timings.avSyncFixTotal, 0);

  stages_.clear();
  onSave_ = [&] { token_->cancel(); };
  EXPECT_THROW(SyncStep().run(run), CancellationError);
  EXPECT_EQ(stages_, "syncFixing ");
  EXPECT_TRUE(log_.contains("A/V sync fix error (non-critical): Operation was cancelled"));
}

}  // namespace
}  // namespace tarn::test
