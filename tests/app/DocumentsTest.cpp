#include <gmock/gmock.h>

#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>

#include "app/CommandLine.h"
#include "app/Manual.h"
#include "support/MediaMaker.h"
#include "support/RawHTTP.h"
#include "support/TarnProcess.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

std::set<std::string> found(const std::string& text, const char* pattern) {
  const std::regex expression(pattern, std::regex::ECMAScript | std::regex::multiline);
  std::set<std::string> all;
  for (std::sregex_iterator at(text.begin(), text.end(), expression), end; at != end; ++at) all.insert((*at)[1]);
  return all;
}

/// The names of all commands, and the long options of each but --help, as the help says; `tarn` itself is "".
using Commands = std::map<std::string, std::set<std::string>>;

void readHelp(const Path& home, const std::string& name, Commands& commands) {
  const std::string help = runTarn(home, words(name + " --help")).output;
  commands[name] = found(help, R"(^ +(?:-\w,)?--([\w-]+))");
  EXPECT_EQ(commands[name].erase("help"), 1U) << name;
  if (help.find("\nSubcommands:\n") == std::string::npos) return;
  for (const std::string& below : found(between(help, "\nSubcommands:\n", "\n\n"), R"(^  (\w+) )")) {
    readHelp(home, name + (name.empty() ? "" : " ") + below, commands);
  }
}

class DocumentsTest : public testing::Test {
 protected:
  /// What bash offers for the last of the words; a blank at the end begins one more. How bash goes on by itself stands
  /// in angle brackets.
  std::vector<std::string> complete(const std::string& line) {
    if (!std::filesystem::exists(place_ / "script")) {
      std::ofstream(place_ / "script") << runTarn(place_ / "home", {"completion", "bash"}).output;
    }
    // As bash calls it: the words in COMP_WORDS, the last of them being written.
    const char* const call =
        R"(set -eu; source "$1"; shift; complete -p tarn | grep -qx 'complete -F _tarn tarn' || exit 1
compopt() { printf '<%s>\n' "${@: -1}"; }
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)); _tarn; printf '%s\n' "${COMPREPLY[@]}")";
    std::vector<std::string> command = {"/bin/bash", "--norc", "-c", call, "bash", place_ / "script"};
    for (const std::string& word : words(line)) command.push_back(word);
    if (line.ends_with(' ')) command.emplace_back();
    ChildProgram bash(command, place_.path());
    EXPECT_EQ(bash.wait(), 0) << bash.errors();
    EXPECT_EQ(bash.errors(), "");
    return words(bash.output());
  }

  TempDirectory place_;
};

TEST_F(DocumentsTest, TheManualAndTheCompletionNameWhatTheHelpNames) {
  Commands help;
  readHelp(place_ / "home", "", help);
  ASSERT_GE(help.size(), 19U);
  ASSERT_TRUE(help["library remove"].contains("now"));
  std::ifstream frame(MANUAL_FRAME);
  const std::string page = manual(factsOf(CommandLine().app()), std::string(std::istreambuf_iterator<char>(frame), {}));
  for (const auto& [name, options] : help) {
    SCOPED_TRACE(name);
    const std::string section = between(page, name.empty() ? "\n# OPTIONS\n" : "\n## " + name + "\n", "\n#");
    auto told = found(section, R"(^(?:\*[^*]+\*, )?\*\\-\\?-([^*]+)\*)");
    told.erase("help");
    EXPECT_EQ(told, options);
    std::set<std::string> offered = {"--help"};
    for (const auto& names : {options, help[""]}) {
      for (const std::string& option : names) offered.insert("--" + option);
    }
    EXPECT_THAT(complete("tarn " + name + " --"), testing::UnorderedElementsAreArray(offered));
  }
  const std::string usage = runTarn(place_ / "home", {"--help"}).output;
  const auto codes = found(usage.substr(usage.find("Exit codes:")), R"(^ +(\d+)  )");
  EXPECT_EQ(codes.size(), 8U);
  EXPECT_EQ(found(page.substr(page.find("\n# EXIT STATUS\n")), R"(^\*(\d+)\*$)"), codes);
}

TEST_F(DocumentsTest, BashCompletesWhatThePlaceAsksFor) {
  const std::pair<const char*, const char*> rows[] = {
      {"re", "resume repair retry"},
      {"--quiet ins", "inspect"},
      {"--home save ins", "inspect"},
      {"--home =", "<dirnames>"},
      {"--home = x lib", "library"},
      {"library re", "remove restore rename"},
      {"library re --quiet ", "list remove restore rename move export open"},
      {"library export ", "<dirnames>"},
      {"library export place ", ""},
      {"repair ", "<default>"},
      {"repair -o ", "<default>"},
      {"repair -- --out", "<default>"},
      {"repair --output-dir ", "<dirnames>"},
      {"repair --jobs 2 --rec", "--recursive"},
      {"save -i ", "<default>"},
      {"save ", ""},
  };
  for (const auto& [line, offered] : rows) {
    EXPECT_THAT(complete(std::string("tarn ") + line), testing::ElementsAreArray(words(offered))) << line;
  }
}

}  // namespace
}  // namespace tarn::test
