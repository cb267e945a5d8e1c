#include <fmt/format.h>
#include <tarn/repair.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>
#include <string>

#include "app/Commands.h"
#include "app/Interrupt.h"
#include "app/Output.h"
#include "app/ProgressPrinter.h"

namespace tarn {
namespace {

struct RepairArguments {
  std::string input;
  std::string output;
  RepairOptions options;
};

RepairReport repair(const RepairArguments& arguments, const std::stop_token& cancel, bool showsProgress) {
  std::optional<ProgressPrinter> printer;
  if (showsProgress) printer.emplace();
  const auto progress = [&](std::string_view stage, double done) {
    if (printer) printer->showStage(std::string(stage), static_cast<int64_t>(done * 100));
  };
  return repairFile(arguments.input, arguments.output, arguments.options, progress, cancel);
}

int reportFailure(const GlobalOptions& global, const RepairArguments& arguments, const std::string& words) {
  if (global.json) printJSON({{"result", "failed"}, {"input", arguments.input}, {"error", words}});
  printFailure(fmt::format("{0} was not repaired: {1}. `tarn inspect {0}` tells more.", arguments.input, words));
  return ExitCode::failed;
}

int repairCommand(const GlobalOptions& global, const RepairArguments& arguments) {
  std::stop_source cancel;
  const InterruptWatcher watcher([&cancel] { return cancel.request_stop(); });
  const RepairReport report = repair(arguments, cancel.get_token(), !global.json);
  if (report.kind == RepairReport::Kind::failed || report.kind == RepairReport::Kind::refused) return reportFailure(global, arguments, report.failure);
  if (report.kind == RepairReport::Kind::cancelled) {
    if (global.json) printJSON({{"result", "interrupted"}, {"input", arguments.input}});
    printFailure(fmt::format("Interrupted; {} was not written.", arguments.output));
    return ExitCode::interrupted;
  }
  if (global.json) {
    printJSON({{"result", report.isPartly ? "partly" : "repaired"},
               {"input", arguments.input},
               {"path", report.output.string()},
               {"note", report.note ? JSValue(*report.note) : JSValue()},
               {"warnings", JSValue::Array(report.warnings.begin(), report.warnings.end())}});
  } else {
    if (report.note) printLine(*report.note);
    for (const std::string& warning : report.warnings) printLine("Warning: " + warning);
    printLine(report.output.string());
  }
  return report.isPartly ? ExitCode::partly : ExitCode::done;
}

}  // namespace

void addRepairCommand(CommandTable& table) {
  const auto given = std::make_shared<RepairArguments>();
  CLI::App* repair = table.app.add_subcommand("repair", "Repair a local file; the result is a file of its own");
  repair->add_option("IN", given->input, "The file to repair; it is never changed")->required();
  repair->add_option("-o,--output", given->output, "The result; it appears whole or not at all")->required();
  repair->add_flag("--skip-video-fix", given->options.skipVideoFix, "Only copy the file");
  repair->add_flag("--skip-audio-fix", given->options.skipAudioFix, "Leave sound and timing as they are");
  repair->add_option("--like", given->options.like,
                     "A healthy recording of the same device, for IN whose moov is lost");
  repair->callback([&table, given] { table.chosen = [&table, given] { return repairCommand(table.global, *given); }; });
}

}  // namespace tarn
