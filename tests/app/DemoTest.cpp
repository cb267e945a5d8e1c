#include <algorithm>
#include <csignal>
#include <cstdio>

#include "app/CommandTest.h"
#include "support/RawHTTP.h"

namespace tarn::test {
namespace {

/// `tarn demo` as this shell command has it, in a place of its own: "$0" is the program, "$1" the place.
class DemoTest : public CommandTest {
 protected:
  DemoTest() {
    for (const char* name : {"tmp", "here", "bin"}) fs::create_directory(place_ / name);
  }

  Child startDemo(const std::string& command) const {
    return startOther({"/bin/sh", "-c", command, tarnCommand(home_, {}).front(), place_.path()});
  }
};

TEST_F(DemoTest, SaysInAFewLinesWhatWasRepairedProvesItAndLeavesTheResultAlone) {
  const TarnResult demo = ended(startDemo("cd \"$1/here\" && TMPDIR=\"$1/tmp\" exec \"$0\" demo"));
  ASSERT_EQ(demo.exitCode, 0) << demo.errors;
  EXPECT_EQ(demo.errors, "");
  EXPECT_LE(std::ranges::count(demo.output, '\n'), 16) << demo.output;
  EXPECT_THAT(demo.output, HasSubstr("none              500, no complaint\n"));
  EXPECT_THAT(demo.output, HasSubstr("kept byte for byte: 500 of 500\n"));
  const std::string beep = between(demo.output, "the beep with the flash at 18 s comes", "\n");
  double early = 0;
  ASSERT_EQ(std::sscanf(beep.c_str(), " %lf s early", &early), 1) << demo.output;
  EXPECT_NEAR(early, 0.38, 0.03);
  EXPECT_THAT(beep, testing::EndsWith(" in time"));
  const Path result = place_ / "here/tarn-demo.mp4";
  EXPECT_THAT(demo.output, HasSubstr("Open it: xdg-open '" + result.string() + "'"));
  EXPECT_EQ(decoderComplaints(result), "");
  EXPECT_TRUE(fs::is_empty(place_ / "tmp"));
}

TEST_F(DemoTest, AnInterruptEndsItsProgramsToo) {
  const std::string id = place_ / "id";
  put(place_ / "bin/ffmpeg",
      "#!/bin/sh\necho $$ >'" + id + ".new'; mv '" + id + ".new' '" + id + "'; exec sleep 1000\n");
  fs::permissions(place_ / "bin/ffmpeg", fs::perms::owner_all);
  const Child demo = startDemo("PATH=\"$1/bin:$PATH\" TMPDIR=\"$1/tmp\" exec \"$0\" demo");
  ASSERT_TRUE(eventually([&] { return fs::exists(id); }));
  demo->signal(SIGINT);
  EXPECT_EQ(demo->wait(), 130) << demo->errors();
  const std::string facts = contentOf("/proc/" + between(contentOf(id), "", "\n") + "/stat");
  EXPECT_TRUE(facts.empty() || facts.find(") Z ") != std::string::npos) << facts;
  EXPECT_TRUE(fs::is_empty(place_ / "tmp"));
}

}  // namespace
}  // namespace tarn::test
