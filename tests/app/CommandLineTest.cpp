#include <algorithm>
#include <csignal>
#include <cstdio>

#include "app/CommandTest.h"
#include "app/Terminal.h"
#include "support/RawHTTP.h"

namespace tarn::test {
namespace {

using testing::StartsWith;

class CommandLineTest : public CommandTest {};

TEST_F(CommandLineTest, AMistypedWordIsAnsweredWithTheNearestOne) {
  const std::pair<const char*, const char*> rows[] = {
      {"sav http://127.0.0.1/x --album a", R"(There is no command "sav". Did you mean "save"?)"},
      {"lib", R"(There is no command "lib". Did you mean "library"?)"},
      {"library remov", R"(There is no command "remov". Did you mean "remove"?)"},
      {"fly", R"(There is no command "fly". `tarn --help` lists all.)"},
      {"save --albm Trips http://127.0.0.1/x", R"(There is no option "--albm". Did you mean "--album"?)"},
      {"save --ablum=Trips http://127.0.0.1/x", R"(There is no option "--ablum". Did you mean "--album"?)"},
      {"library --hoem x", R"(There is no option "--hoem". Did you mean "--home"?)"},
      {"--versoin", R"(There is no option "--versoin". Did you mean "--version"?)"},
      {"", "Which command? `tarn --help` tells more."},
      {"save", "Which video? Give a URL"},
      {"serve --port", "--port"},
      {"library --background-seconds 9223372036854775807", "--background-seconds"},
  };
  for (const auto& [line, words] : rows) {
    const TarnResult result = run(test::words(line));
    EXPECT_EQ(result.exitCode, 2) << line;
    EXPECT_THAT(result.errors, StartsWith("tarn: ")) << line;
    EXPECT_THAT(result.errors, HasSubstr(words)) << line;
    EXPECT_EQ(result.output, "") << line;
  }
  for (const char* line : {"--json sav", "serve --json", "demo --json"}) {
    const TarnResult result = run(test::words(line));
    EXPECT_EQ(result.exitCode, 2) << line;
    EXPECT_THAT(result.output, StartsWith(R"({"schema":1,"result":"usage",)"));
  }
}

TEST_F(CommandLineTest, TheVersionNamesTheLibrariesToo) {
  const TarnResult version = run({"--version"});
  EXPECT_EQ(version.exitCode, 0);
  for (const char* name : {"tarn 0.", "libavcodec ", "libcurl ", "libmagic ", "OpenSSL ", "SQLite "}) {
    EXPECT_THAT(version.output, HasSubstr(name));
  }
}

/// What a terminal would act on.
TEST_F(CommandLineTest, NamesFromOutsideCannotSteerATerminal) {
  const std::string name =
      "a\x1b]0;x\x07\xC2\x9B 1m\xE2\x80\xAE"
      "4pm.mp4\nb";
  const Path file = put(place_ / name, "no video");
  const std::vector<std::string> commands[] = {{"inspect", file},
                                               {"--json", "inspect", file},
                                               {"repair", file, "-o", place_ / "out.mp4"},
                                               {"save", name},
                                               {"--json", "save", "http://127.0.0.1:9/x", "--filename", name},
                                               {name}};
  for (const auto& command : commands) {
    const TarnResult result = run(command);
    const std::string all = result.output + result.errors;
    EXPECT_NE(all, "") << command[0];
    for (const char* raw : {"\x1b", "\x07", "\xC2\x9B", "\xE2\x80\xAE", ".mp4\nb"}) {
      EXPECT_THAT(all, Not(HasSubstr(raw))) << command[0];
    }
  }
}

TEST(Terminal, CutsBetweenCharactersAsWideAsTheyAre) {
  struct Row {
    const char* text;
    size_t columns;
    const char* cut;
  };
  const Row rows[] = {{"clip.mp4", 8, "clip.mp4"},  {"clip.mp4", 7, "clip..."},        {"日本語.mp4", 10, "日本語.mp4"},
                      {"日本語.mp4", 8, "日本..."}, {"e\xCC\x81té", 3, "e\xCC\x81té"}, {"clip.mp4", 2, ".."}};
  for (const auto& [text, columns, cut] : rows) {
    EXPECT_EQ(cutToColumns(text, columns), cut);
    EXPECT_LE(columnsOf(cutToColumns(text, columns)), columns);
  }
}

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
