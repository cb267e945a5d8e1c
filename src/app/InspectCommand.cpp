#include <tarn/inspect.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "app/Commands.h"
#include "app/Output.h"

namespace tarn {
namespace {

int inspectCommand(const GlobalOptions& global, const std::string& file) {
  const FileInspection inspection = inspectFile(file);
  printLine(global.json ? inspection.json : inspection.text);
  return ExitCode::done;
}

}  // namespace

void addInspectCommand(CommandTable& table) {
  const auto file = std::make_shared<std::string>();
  CLI::App* inspect =
      table.app.add_subcommand("inspect", "Tell what a file is, what is wrong with it and what a repair would do");
  inspect->add_option("FILE", *file, "It is not changed")->required();
  inspect->callback([&table, file] { table.chosen = [&table, file] { return inspectCommand(table.global, *file); }; });
}

}  // namespace tarn
