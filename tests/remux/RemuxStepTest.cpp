#include "remux/RemuxFixture.h"
#include "remux/RemuxStep.h"
#include "support/RunRecorder.h"

namespace tarn {
namespace {

using namespace test;

class RemuxStepTest : public FileTest {
 protected:
  RunRecorder recorder_;
};

TEST_F(RemuxStepTest, RepairsByCodecAndEntersItsStages) {
  auto damaged = [&](bool isHEVC) {
    return withoutParameterSets(readFile(files_, encodedVideo(inBand(isHEVC))), isHEVC);
  };
  auto movieWith = [](const Bytes& stsd) { return box("moov", {trackBox("vide", {stsd})}); };
  const Bytes noFields = box("stsd");
  struct {
    Bytes movie;
    std::string line;
    bool isRepaired = false;
  } cases[] = {
      {damaged(true), "HEVC remuxing completed", true},
      {damaged(false), "AVC remuxing completed", true},
      {movieWith(sampleDescriptionBox({visualSampleEntry("vp09")})), "Codec vp09 does not require remuxing"},
      {Bytes(), "WARNING: Could not detect video codec (detection failed)"},
      {movieWith(noFields), "ERROR detecting video codec: the data are too short for version and flags"},
  };
  for (const auto& c : cases) {
    write(c.movie);
    ProcessingRun run = recorder_.runOn(files_, file_);
    RemuxStep().run(run);
    EXPECT_EQ(recorder_.stages, "remuxing remuxed ");
    EXPECT_TRUE(log_.contains(c.line)) << c.line;
    EXPECT_EQ(written() != c.movie, c.isRepaired);
    EXPECT_EQ(run.timings.hevcRemuxTotal > 0 && run.timings.hevcRemuxing.writeAtomicMP4 > 0, c.isRepaired);
  }
  recorder_.token->cancel();
  ProcessingRun cancelled = recorder_.runOn(files_, file_);
  EXPECT_THROW(RemuxStep().run(cancelled), CancellationError);
  EXPECT_EQ(recorder_.stages, "");
}

}  // namespace
}  // namespace tarn
