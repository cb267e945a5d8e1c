#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <set>
#include <thread>

#include "app/Commands.h"
#include "app/FailureReport.h"
#include "app/Interrupt.h"
#include "app/Output.h"
#include "app/ProgressPrinter.h"
#include "app/RepairArguments.h"
#include "app/RepairBatch.h"
#include "app/RepairPlan.h"
#include "app/RepairStreams.h"
#include "app/RepairTeller.h"
#include "app/TransferArguments.h"
#include "pipeline/CancellationToken.h"
#include "platform/host/PosixFileManager.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;

void requireSense(const GlobalOptions& global, const RepairArguments& given) {
  if (!given.output && !given.outputDirectory && !given.isInPlace) {
    throw UsageError("Say where the result goes: -o OUT, --output-dir DIR or --in-place.");
  }
  if (given.inputs.empty() && !given.filesFrom) throw UsageError("Name a file to repair, or --files-from FILE.");
  for (const std::string& input : given.inputs) {
    if (input == RepairArguments::stream && !(given.isSingle() && given.output)) {
      throw UsageError("Standard input (-) must be the only input, and needs -o OUT.");
    }
  }
  if (!given.writesStream()) return;
  if (global.json) throw UsageError("--json and -o - both write to standard output.");
  if (isTerminal(STDOUT_FILENO)) throw UsageError("Standard output is a terminal; send it to a file.");
}

std::vector<Path> inputsOf(const RepairArguments& given) {
  std::vector<Path> inputs(given.inputs.begin(), given.inputs.end());
  if (!given.filesFrom) return inputs;
  constexpr size_t longestList = 1 << 30;
  const auto listed = pathsInList(readUserFile(*given.filesFrom, longestList), given.listEndsWithZeros);
  inputs.insert(inputs.end(), listed.begin(), listed.end());
  return inputs;
}

/// What a killed run has left goes, also where nothing is to be done any more.
void sweep(const RepairArguments& given, const RepairPlan& plan) {
  std::set<Path> places;
  for (const PlannedRepair& file : plan.files) places.insert(absolutePath(file.output).parent_path());
  if (given.options.scratch) places.insert(*given.options.scratch);
  for (const Path& place : places) PrivateHome::sweep(place);
}

RepairTarget targetOf(const RepairArguments& given) {
  RepairTarget target{.suffix = given.suffix};
  if (given.output) target.file = *given.output;
  if (given.outputDirectory) target.directory = *given.outputDirectory;
  return target;
}

BatchRules rulesOf(const RepairArguments& given, size_t files) {
  const Shares shares = sharesOf(std::thread::hardware_concurrency(), given.jobs, files);
  BatchRules rules{.jobs = shares.jobs,
                   .skipsDone = given.skipsDone,
                   .makesDirectories = given.outputDirectory.has_value(),
                   .original = given.lacksBackup ? Original::isLost : Original::isKept,
                   .options = given.options};
  rules.options.workers = shares.workers;
  return rules;
}

/// Of directories that could not be listed.
void tellUnreadable(const RepairPlan& plan, RepairTeller& teller) {
  for (const auto& [directory, why] : plan.unreadable) {
    RepairedFile result{.file = {directory, {}}, .neverBegan = true};
    result.report.failure = why;
    teller.tell(result);
  }
}

int repairAll(const GlobalOptions& global, const RepairArguments& given, const std::vector<Path>& inputs,
              const RepairTarget& target, const std::stop_token& cancel) {
  const RepairPlan plan = planRepairs(inputs, target, given.isRecursive);
  sweep(given, plan);
  RepairTeller teller(global, given, plan.files.size() + plan.unreadable.size());
  tellUnreadable(plan, teller);
  std::optional<ProgressPrinter> printer;
  if (given.isSingle() && !global.json) printer.emplace();
  const auto progress = [&](std::string_view stage, double done) {
    if (printer) printer->showStage(std::string(stage), static_cast<int64_t>(done * 100));
  };
  const auto start = std::chrono::steady_clock::now();
  repairAll(plan.files, rulesOf(given, plan.files.size()), cancel, progress, [&](const RepairedFile& result) {
    printer.reset();
    teller.tell(result);
  });
  return teller.tellAll(cancel.stop_requested(),
                        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
}

int repairStreams(const GlobalOptions& global, const RepairArguments& given, std::vector<Path> inputs,
                  const std::stop_token& cancel) {
  RepairStreams streams(given.options.scratch ? Path(*given.options.scratch) : fs::temp_directory_path());
  RepairTarget target = targetOf(given);
  try {
    if (given.readsStream()) inputs = {streams.readInput(cancel)};
    if (given.writesStream()) target.file = streams.output();
    const int code = repairAll(global, given, inputs, target, cancel);
    const bool isWritten = code == ExitCode::done || code == ExitCode::partly;
    if (given.writesStream() && isWritten) streams.writeOutput();
    return code;
  } catch (const CancellationError&) {
    return reportInterrupt(global, "nothing was written.");
  }
}

int repairCommand(const GlobalOptions& global, const RepairArguments& given) {
  requireSense(global, given);
  const std::vector<Path> inputs = inputsOf(given);  // before the watcher: reading a list has one of its own
  std::stop_source cancel;
  const InterruptWatcher watcher([&cancel] { return cancel.request_stop(); },
                                 "tarn: Interrupted; each result is there whole, or not at all.\n");
  if (given.readsStream() || given.writesStream()) return repairStreams(global, given, inputs, cancel.get_token());
  return repairAll(global, given, inputs, targetOf(given), cancel.get_token());
}

void addPlaces(CLI::App& repair, RepairArguments& given) {
  repair.add_option("IN", given.inputs, "The files to repair, or directories (--recursive); - is standard input")
      ->type_name("FILE");
  repair.add_option("--files-from", given.filesFrom, "More of them, one a line; - is standard input")
      ->type_name("FILE");
  repair.add_flag("-0,--null", given.listEndsWithZeros,
                  "In that list a zero ends each path, as `find -print0` writes it");
  repair.add_flag("-r,--recursive", given.isRecursive,
                  "Recordings in directories and below them, told by their endings");
  auto* const places = repair.add_option_group("places", "Where the results go; each appears whole or not at all");
  places->add_option("-o,--output", given.output, "The result of one file; - is standard output")->type_name("FILE");
  auto* const directory =
      places->add_option("--output-dir", given.outputDirectory, "Results go below this directory")->type_name("DIR");
  auto* const inPlace =
      places->add_flag("--in-place", given.isInPlace, "Results replace their files; NAME.orig is the old one");
  places->require_option(1);
  repair.add_option("--suffix", given.suffix, "Put before the ending of each name")->needs(directory);
  repair.add_flag("--no-backup", given.lacksBackup, "Keep no NAME.orig")->needs(inPlace);
  repair.add_option("--scratch", given.options.scratch, "Directory for all new bytes but the results")
      ->check(CLI::ExistingDirectory.description(""))
      ->type_name("DIR");
}

}  // namespace

void addRepairCommand(CommandTable& table) {
  const auto given = std::make_shared<RepairArguments>();
  CLI::App* repair = table.app.add_subcommand("repair", "Repair local files");
  addPlaces(*repair, *given);
  repair->add_option("--jobs", given->jobs, "Files at a time (else as many as cores, at most 4)")
      ->check(CLI::Range(1U, 1024U));
  repair->add_flag("--skip-done", given->skipsDone, "Pass over files whose result is there and not older");
  repair->add_option("--report", given->report, "Append a JSON line for each file to this file")->type_name("FILE");
  repair->add_flag("--skip-video-fix", given->options.skipVideoFix, "Only copy the file");
  repair->add_flag("--skip-audio-fix", given->options.skipAudioFix, "Leave sound and timing as they are");
  repair
      ->add_option("--like", given->options.like,
                   "A healthy recording of the same device, for files whose moov is lost")
      ->type_name("FILE");
  repair->callback([&table, given] { table.chosen = [&table, given] { return repairCommand(table.global, *given); }; });
}

}  // namespace tarn
