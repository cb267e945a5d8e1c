#include "download/DownloadTask.h"
#include "parameters/NALUnitParser.h"
#include "remux/RemuxFixture.h"
#include "remux/RemuxStep.h"
#include "support/BoxBuilder.h"
#include "support/ManualClock.h"

namespace tarn {
namespace {

using namespace test;

class RemuxStepTest : public RemuxTest, public ProcessingRunListener {
 protected:
  bool saveRecord(const CancellationToken&, const ProcessingState& record) override {
    stages_.push_back(record.stage);
    return true;
  }
  void progressUpdated(const std::shared_ptr<DownloadTask>&, double, const std::string&) override {}

  ProcessingTimings runStep(const Bytes& movie) {
    write(movie);
    stages_.clear();
    ProcessingState state;
    state.fileURL = file_;
    ProcessingRun run(files_, clock_, names_, *this, state, nullptr, token_);
    RemuxStep().run(run);
    return run.timings;
  }

  ManualClock clock_;
  NamesInTheMaking names_;
  std::vector<ProcessingStage> stages_;
  std::shared_ptr<CancellationToken> token_ = std::make_shared<CancellationToken>();
};

TEST_F(RemuxStepTest, RepairsByCodecAndEntersItsStages) {
  using testing::ElementsAre;
  const auto both = ElementsAre(ProcessingStage::remuxing, ProcessingStage::remuxed);
  auto timings = runStep(withoutParameterSets(readFile(files_, encodedVideo(inBandHEVC)), true));
  EXPECT_THAT(stages_, both);
  EXPECT_GT(timings.hevcRemuxTotal, 0);
  EXPECT_GT(timings.hevcRemuxing.writeAtomicMP4, 0);
  EXPECT_EQ(MP4Remuxer::detectHEVCTag(files_, file_), "hvc1");
  EXPECT_TRUE(log_.contains("HEVC remuxing completed"));

  runStep(withoutParameterSets(readFile(files_, encodedVideo(inBandAVC)), false));
  EXPECT_THAT(stages_, both);
  EXPECT_EQ(MP4Remuxer::detectHEVCTag(files_, file_), "avc1");
  EXPECT_TRUE(log_.contains("Remuxing AVC video (codec: avc3)..."));

  for (const Bytes& other :
       {Bytes(), box("moov", {trackBox("vide", {sampleDescriptionBox({visualSampleEntry("vp09")})})}),
        box("moov", {trackBox("vide", {box("stsd")})})}) {
    runStep(other);
    EXPECT_THAT(stages_, both);
    EXPECT_EQ(written(), other);
  }
  for (const char* line :
       {"WARNING: Could not detect video codec (detection failed)", "Codec vp09 does not require remuxing",
        "ERROR detecting video codec: the data are too short for version and flags"}) {
    EXPECT_TRUE(log_.contains(line)) << line;
  }
}

TEST_F(RemuxStepTest, PassesFailuresOn) {
  Bytes movie = readFile(files_, encodedVideo({.codec = "libx265"}));
  EXPECT_THROW(runStep(movie), NALUnitParserError);
  EXPECT_THAT(stages_, testing::ElementsAre(ProcessingStage::remuxing));
  EXPECT_THAT(log_.lines(), testing::Contains(testing::StartsWith("ERROR during HEVC remuxing: ")));
  token_->cancel();
  EXPECT_THROW(runStep(movie), CancellationError);
  EXPECT_TRUE(stages_.empty());
}

}  // namespace
}  // namespace tarn
