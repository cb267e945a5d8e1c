#include "support/FileTest.h"
#include "support/FlashBeep.h"
#include "support/RunRecorder.h"
#include "sync/MP4AVSyncFixer.h"
#include "sync/SyncStep.h"

namespace tarn::test {
namespace {

class SyncSteps : public FileTest {
 protected:
  RunRecorder recorder_;
  ProcessingRun run_ = recorder_.runOn(files_, file_);
};

TEST_F(SyncSteps, CarryTheSourcesFactsToTheFix) {
  write(readFile(files_, flashBeepClip(0.3)));
  run_.originalSyncInfo = MP4AVSyncFixer::readOriginalSyncInfo(files_, file_);
  run_.audioWasTranscoded = true;
  SyncStep().run(run_);
  EXPECT_EQ(recorder_.stages, "syncFixing syncFixed ");
  EXPECT_TRUE(log_.contains("MP4AVSyncFixer: Preserving original 278.0ms empty edit (transcoded=true)"));
  EXPECT_TRUE(log_.contains("A/V sync fix applied successfully"));
  EXPECT_GT(run_.timings.avSyncFixTotal, run_.timings.avSyncFix.writeMoov);
}

TEST_F(SyncSteps, KeepFailuresButNotACancellationToThemselves) {
  SyncStep().run(run_);
  EXPECT_EQ(recorder_.stages, "syncFixing syncFixed ");
  EXPECT_TRUE(log_.contains("A/V sync fix error (non-critical): MP4 file not found"));
  EXPECT_EQ(run_.timings.avSyncFixTotal, 0);

  recorder_.stages.clear();
  recorder_.onSave = [&](const auto&) { recorder_.token->cancel(); };
  EXPECT_THROW(SyncStep().run(run_), CancellationError);
  EXPECT_EQ(recorder_.stages, "syncFixing ");
  EXPECT_TRUE(log_.contains("A/V sync fix error (non-critical): Operation was cancelled"));
}

}  // namespace
}  // namespace tarn::test
