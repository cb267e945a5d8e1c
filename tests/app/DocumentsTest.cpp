#include <gmock/gmock.h>

#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>

#include "app/CommandLine.h"
#include "app/Manual.h"
#include "support/MediaMaker.h"
#include "support/TarnProcess.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

using testing::ElementsAreArray;

std::set<std::string> found(const std::string& text, const char* pattern) {
  const std::regex expression(pattern, std::regex::ECMAScript | std::regex::multiline);
  std::set<std::string> all;
  for (std::sregex_iterator at(text.begin(), text.end(), expression), end; at != end; ++at) all.insert((*at)[1]);
  return all;
}

/// Names of commands, and the long options of each but --help, without dashes; `tarn` itself is "".
using Commands = std::map<std::string, std::set<std::string>>;

/// What the help of a command and of those below it says.
void readHelp(const Path& home, const std::string& name, Commands& commands) {
  auto arguments = words(name);
  arguments.emplace_back("--help");
  const std::string help = runTarn(home, arguments).output;
  commands[name] = found(help, R"(^ +(?:-\w,)?--([\w-]+))");
  EXPECT_EQ(commands[name].erase("help"), 1U) << name;
  const size_t list = help.find("\nSubcommands:\n");
  if (list == std::string::npos) return;
  for (const std::string& below : found(help.substr(list, help.find("\n\n", list) - list), R"(^  (\w+) )")) {
    readHelp(home, name + (name.empty() ? "" : " ") + below, commands);
  }
}

std::string manualPage() {
  std::ifstream frame(MANUAL_FRAME);
  return manual(factsOf(CommandLine().app()), std::string(std::istreambuf_iterator<char>(frame), {}));
}

class DocumentsTest : public testing::Test {
 protected:
  void SetUp() override { readHelp(place_ / "home", "", help_); }

  /// What bash offers for the last of the words; how it goes on by itself stands in angle brackets.
  std::vector<std::string> complete(const std::vector<std::string>& line) {
    if (!std::filesystem::exists(place_ / "script")) {
      std::ofstream(place_ / "script") << runTarn(place_ / "home", {"completion", "bash"}).output;
    }
    // As bash calls it: the words in COMP_WORDS, the last of them being written.
    const char* const call =
        R"(set -eu; source "$1"; shift; complete -p tarn | grep -qx 'complete -F _tarn tarn' || exit 1
compopt() { printf '<%s>\n' "${@: -1}"; }
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)); _tarn; printf '%s\n' "${COMPREPLY[@]}")";
    std::vector<std::string> command = {"/bin/bash", "--norc", "-c", call, "bash", place_ / "script"};
    command.insert(command.end(), line.begin(), line.end());
    ChildProgram bash(command, place_.path());
    EXPECT_EQ(bash.wait(), 0) << bash.errors();
    EXPECT_EQ(bash.errors(), "");
    return words(bash.output());
  }

  TempDirectory place_;
  Commands help_;
};

TEST_F(DocumentsTest, TheManualAndTheHelpNameTheSameCommandsOptionsAndExitCodes) {
  ASSERT_GE(help_.size(), 19U);
  ASSERT_TRUE(help_["library remove"].contains("now"));
  const std::string page = manualPage();
  Commands told;
  size_t at = page.find("\n# OPTIONS\n");
  const size_t end = page.find("\n# EXIT STATUS\n");
  ASSERT_LT(at, end);
  for (std::string name; at < end;) {
    const size_t next = std::min(page.find("\n## ", at + 1), end);
    told[name] = found(page.substr(at, next - at), R"(^(?:\*[^*]+\*, )?\*\\-\\?-([^*]+)\*)");
    name = page.substr(next + 4, page.find('\n', next + 1) - next - 4);
    at = next;
  }
  EXPECT_EQ(told[""].erase("help"), 1U);
  EXPECT_EQ(told, help_);
  const std::string help = runTarn(place_ / "home", {"--help"}).output;
  const auto codes = found(help.substr(help.find("Exit codes:")), R"(^ +(\d+)  )");
  EXPECT_EQ(codes.size(), 8U);
  EXPECT_EQ(found(page.substr(end), R"(^\*(\d+)\*$)"), codes);
  EXPECT_THROW(manual({}, "tarn(1)\n\n@OPTIONS@\n\n@COMMANDS@\n"), std::runtime_error);
}

TEST_F(DocumentsTest, BashCompletesEveryOptionOfEveryCommand) {
  for (const auto& [name, options] : help_) {
    std::vector<std::string> line = words("tarn " + name);
    line.emplace_back("--");
    std::set<std::string> expected = {"--help"};
    for (const auto& names : {options, help_[""]}) {
      for (const std::string& option : names) expected.insert("--" + option);
    }
    EXPECT_THAT(complete(line), testing::UnorderedElementsAreArray(expected)) << name;
  }
}

TEST_F(DocumentsTest, BashCompletesWhatThePlaceAsksFor) {
  const std::vector<std::string> files = {"<default>"};
  const std::vector<std::string> directories = {"<dirnames>"};
  const std::pair<std::vector<std::string>, std::vector<std::string>> rows[] = {
      {{"tarn", "re"}, {"resume", "repair", "retry"}},
      {{"tarn", "--quiet", "ins"}, {"inspect"}},
      {{"tarn", "--home", "save", "ins"}, {"inspect"}},
      {{"tarn", "--home", "="}, directories},
      {{"tarn", "--home", "=", "x"}, directories},
      {{"tarn", "--home", "=", "x", "lib"}, {"library"}},
      {{"tarn", "library", "re"}, {"remove", "restore", "rename"}},
      {{"tarn", "library", "re", "--quiet", ""}, {"list", "remove", "restore", "rename", "move", "export", "open"}},
      {{"tarn", "library", "export", ""}, directories},
      {{"tarn", "library", "export", "place", ""}, {}},
      {{"tarn", "repair", ""}, files},
      {{"tarn", "repair", "a.mp4", "b"}, files},
      {{"tarn", "repair", "-o", ""}, files},
      {{"tarn", "repair", "--", "--out"}, files},
      {{"tarn", "repair", "--output-dir", ""}, directories},
      {{"tarn", "repair", "--jobs", ""}, {}},
      {{"tarn", "repair", "--jobs", "2", "--rec"}, {"--recursive"}},
      {{"tarn", "save", "-i", ""}, files},
      {{"tarn", "save", ""}, {}},
      {{"tarn", "completion", ""}, {"bash", "zsh", "fish"}},
      {{"tarn", "completion", "z"}, {"zsh"}},
  };
  for (const auto& [line, expected] : rows) {
    EXPECT_THAT(complete(line), ElementsAreArray(expected)) << testing::PrintToString(line);
  }
}

}  // namespace
}  // namespace tarn::test
