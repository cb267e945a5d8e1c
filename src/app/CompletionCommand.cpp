#include <CLI/CLI.hpp>
#include <memory>

#include "app/Commands.h"
#include "app/Completion.h"
#include "app/Output.h"

namespace tarn {
namespace {

struct Shell {
  const char* name;
  std::string (*script)(const CommandFacts& root);
};

constexpr Shell shells[] = {{"bash", bashCompletion}, {"zsh", zshCompletion}, {"fish", fishCompletion}};

}  // namespace

void addCompletionCommand(CommandTable& table) {
  const auto name = std::make_shared<std::string>();
  CLI::App* completion = table.app.add_subcommand("completion", "Print the script by which a shell completes words");
  std::vector<std::string> names;
  for (const Shell& shell : shells) names.emplace_back(shell.name);
  completion->add_option("SHELL", *name, "bash, zsh or fish")->required()->check(CLI::IsMember(names));
  completion->excludes(table.app.get_option("--json"));
  completion->callback([&table, name] {
    table.chosen = [&table, name]() -> int {
      for (const Shell& shell : shells) {
        if (*name == shell.name) printText(shell.script(factsOf(table.app)));
      }
      return ExitCode::done;
    };
  });
}

}  // namespace tarn
