#include <algorithm>
#include <csignal>
#include <cstdio>

#include "app/CommandTest.h"

namespace tarn::test {
namespace {

TEST(DemoTest, SaysInAFewLinesWhatWasRepairedProvesItAndLeavesTheResultAlone) {
  const TempDirectory place;
  fs::create_directory(place / "tmp");
  fs::create_directory(place / "here");
  ChildProgram demo({"/bin/sh", "-c", "cd \"$1/here\" && TMPDIR=\"$1/tmp\" exec \"$0\" demo",
                     tarnCommand(place.path(), {}).front(), place.path().string()},
                    place.path());
  ASSERT_EQ(demo.wait(), 0) << demo.errors();
  EXPECT_EQ(demo.errors(), "");
  const std::string output = demo.output();
  EXPECT_LE(std::ranges::count(output, '\n'), 16) << output;
  EXPECT_THAT(output, HasSubstr("none              500, no complaint\n"));
  EXPECT_THAT(output, HasSubstr("kept byte for byte: 500 of 500\n"));
  double early = 0;
  const std::string row = "the beep with the flash at 18 s comes";
  const size_t at = output.find(row);
  ASSERT_NE(at, std::string::npos) << output;
  ASSERT_EQ(std::sscanf(output.c_str() + at + row.size(), " %lf s early", &early), 1) << output;
  EXPECT_NEAR(early, 0.38, 0.03);
  EXPECT_EQ(output.substr(0, output.find('\n', at)).substr(output.find('\n', at) - 8), " in time") << output;
  const Path result = place / "here" / "tarn-demo.mp4";
  EXPECT_THAT(output, HasSubstr("Open it: xdg-open '" + result.string() + "'"));
  EXPECT_EQ(decoderComplaints(result), "");
  EXPECT_TRUE(fs::is_empty(place / "tmp"));
}

TEST(DemoTest, AnInterruptEndsItsProgramsToo) {
  const TempDirectory place;
  fs::create_directories(place / "tmp");
  fs::create_directory(place / "bin");
  const Path fake = place / "bin/ffmpeg", id = place / "id";
  std::ofstream(fake) << "#!/bin/sh\necho $$ >'" << id.native() << ".new'; mv '" << id.native() << ".new' '"
                      << id.native() << "'; exec sleep 1000\n";
  fs::permissions(fake, fs::perms::owner_all);
  ChildProgram demo({"/bin/sh", "-c", "PATH=\"$1/bin:$PATH\" TMPDIR=\"$1/tmp\" exec \"$0\" demo",
                     tarnCommand(place.path(), {}).front(), place.path().string()},
                    place.path());
  ASSERT_TRUE(eventually([&] { return fs::exists(id); }));
  demo.signal(SIGINT);
  EXPECT_EQ(demo.wait(), 130) << demo.errors();
  const std::string number = contentOf(id), facts = contentOf("/proc/" + number.substr(0, number.find('\n')) + "/stat");
  EXPECT_TRUE(facts.empty() || facts.find(") Z ") != std::string::npos) << facts;
  EXPECT_TRUE(fs::is_empty(place / "tmp"));
}

}  // namespace
}  // namespace tarn::test
