#include "app/CommandTest.h"
#include "app/Terminal.h"
#include "platform/JSObject.h"

namespace tarn::test {
namespace {

using testing::StartsWith;

class CommandLineTest : public CommandTest {};

TEST_F(CommandLineTest, AMistypedWordIsAnsweredWithTheNearestOne) {
  const std::pair<const char*, const char*> rows[] = {
      {"sav http://127.0.0.1/x --album a", R"(There is no command "sav". Did you mean "save"?)"},
      {"resumee", R"(There is no command "resumee". Did you mean "resume"?)"},
      {"lib", R"(There is no command "lib". Did you mean "library"?)"},
      {"library remov", R"(There is no command "remov". Did you mean "remove"?)"},
      {"fly", R"(There is no command "fly". `tarn --help` lists all.)"},
      {"save --albm Trips http://127.0.0.1/x", R"(There is no option "--albm". Did you mean "--album"?)"},
      {"save --ablum=Trips http://127.0.0.1/x", R"(There is no option "--ablum". Did you mean "--album"?)"},
      {"repair --outptu x y", R"(There is no option "--outptu". Did you mean "--output"?)"},
      {"library --hoem x", R"(There is no option "--hoem". Did you mean "--home"?)"},
      {"--versoin", R"(There is no option "--versoin". Did you mean "--version"?)"},
      {"", "Which command? `tarn --help` tells more."},
      {"save", "Which video? Give a URL"},
      {"serve --port", "--port"},
  };
  for (const auto& [line, words] : rows) {
    const TarnResult result = run(test::words(line));
    EXPECT_EQ(result.exitCode, 2) << line;
    EXPECT_THAT(result.errors, StartsWith("tarn: ")) << line;
    EXPECT_THAT(result.errors, HasSubstr(words)) << line;
    EXPECT_EQ(result.output, "") << line;
  }
  const auto told = JSObject::parse(run({"--json", "sav"}).output);
  ASSERT_TRUE(told);
  EXPECT_EQ(valueAt<int64_t>(*told, "schema", 0), 1);
  EXPECT_EQ(valueAt<std::string>(*told, "result", ""), "usage");
}

TEST_F(CommandLineTest, TellsItsVersionItsLibrariesAndItsExitCodes) {
  const TarnResult version = run({"--version"});
  EXPECT_EQ(version.exitCode, 0);
  for (const char* name : {"tarn 0.", "libavcodec ", "libcurl ", "libmagic ", "OpenSSL ", "SQLite "}) {
    EXPECT_THAT(version.output, HasSubstr(name));
  }
  const TarnResult help = run({"--help"});
  EXPECT_EQ(help.exitCode, 0);
  for (const char* code : {"\n    0  ", "\n    2  ", "\n    4  ", "\n   75  ", "\n  130  "}) {
    EXPECT_THAT(help.output, HasSubstr(code));
  }
}

/// What a terminal would act on.
TEST_F(CommandLineTest, NamesFromOutsideCannotSteerATerminal) {
  const std::string name =
      "a\x1b]0;x\x07\xC2\x9B 1m\xE2\x80\xAE"
      "4pm.mp4\nb";
  const Path file = put(place_ / name, "no video");
  for (const std::vector<std::string>& command : {std::vector<std::string>{"inspect", file},
                                                  {"repair", file, "-o", place_ / "out.mp4"},
                                                  {"save", name, "--album", "a"},
                                                  {"save", "http://127.0.0.1:9/x", "--filename", name},
                                                  {name}}) {
    for (const bool isJSON : {false, true}) {
      auto arguments = command;
      if (isJSON) arguments.insert(arguments.begin(), "--json");
      const TarnResult result = run(arguments);
      const std::string all = result.output + result.errors;
      EXPECT_NE(all, "") << command[0];
      for (const char* raw : {"\x1b", "\x07", "\xC2\x9B", "\xE2\x80\xAE", ".mp4\nb"}) {
        EXPECT_THAT(all, Not(HasSubstr(raw))) << command[0];
      }
    }
  }
}

TEST(Terminal, CutsBetweenCharactersAsWideAsTheyAre) {
  struct Row {
    const char* text;
    size_t columns;
    const char* cut;
  };
  const Row rows[] = {{"clip.mp4", 8, "clip.mp4"},
                      {"clip.mp4", 7, "clip..."},
                      {"日本語.mp4", 10, "日本語.mp4"},
                      {"日本語.mp4", 9, "日本語..."},
                      {"日本語.mp4", 8, "日本..."},
                      {"e\xCC\x81té", 3, "e\xCC\x81té"},
                      {"clip.mp4", 2, ".."},
                      {"", 0, ""}};
  for (const auto& [text, columns, cut] : rows) {
    EXPECT_EQ(cutToColumns(text, columns), cut);
    EXPECT_LE(columnsOf(cutToColumns(text, columns)), columns);
  }
}

}  // namespace
}  // namespace tarn::test
