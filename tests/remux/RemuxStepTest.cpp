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
  const Bytes noSets = readFile(files_, encodedVideo({.codec = "libx265"})), noFields = box("stsd");
  const std::string both = "remuxing remuxed ";
  struct {
    Bytes movie;
    std::string stages, line;
    bool isRepaired = false;
  } cases[] = {
      {damaged(true), both, "HEVC remuxing completed", true},
      {damaged(false), both, "AVC remuxing completed", true},
      {movieWith(sampleDescriptionBox({visualSampleEntry("vp09")})), both, "Codec vp09 does not require remuxing"},
      {Bytes(), both, "WARNING: Could not detect video codec (detection failed)"},
      {movieWith(noFields), both, "ERROR detecting video codec: the data are too short for version and flags"},
      {noSets, "remuxing ", "ERROR during HEVC remuxing: No complete parameter sets found in the video's sync samples"},
  };
  for (const auto& c : cases) {
    write(c.movie);
    ProcessingRun run = recorder_.runOn(files_, file_);
    EXPECT_EQ(failureOf([&] { RemuxStep().run(run); }).empty(), c.stages == both);
    EXPECT_EQ(recorder_.stages, c.stages);
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
