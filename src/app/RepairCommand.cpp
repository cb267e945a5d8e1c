#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <iterator>
#include <memory>
#include <set>
#include <thread>

#include "app/Commands.h"
#include "app/Interrupt.h"
#include "app/Output.h"
#include "app/ProgressPrinter.h"
#include "app/RepairBatch.h"
#include "app/RepairPlan.h"
#include "app/RepairResults.h"
#include "app/RepairStreams.h"
#include "pipeline/CancellationToken.h"
#include "platform/host/PosixFileManager.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;

constexpr const char* stream = "-";

struct RepairArguments {
  std::vector<std::string> inputs;
  std::optional<std::string> filesFrom;
  bool listEndsWithZeros = false;
  std::optional<std::string> output;
  std::optional<std::string> outputDirectory;
  std::string suffix;
  bool isInPlace = false;
  bool lacksBackup = false;
  bool isRecursive = false;
  bool skipsDone = false;
  std::optional<unsigned> jobs;
  std::optional<std::string> report;
  RepairOptions options;

  bool readsStream() const { return inputs.size() == 1 && inputs.front() == stream; }
  bool writesStream() const { return output == stream; }
  /// One file that is named: its result is told as that of other commands.
  bool isSingle() const {
    std::error_code ignored;
    return inputs.size() == 1 && !filesFrom && !fs::is_directory(inputs.front(), ignored);
  }
};

void requireSense(const GlobalOptions& global, const RepairArguments& given) {
  if (!given.output && !given.outputDirectory && !given.isInPlace) {
    throw UsageError("say where the result goes: -o OUT, --output-dir DIR or --in-place");
  }
  if (given.inputs.empty() && !given.filesFrom) throw UsageError("name a file to repair, or --files-from FILE");
  for (const std::string& input : given.inputs) {
    if (input == stream && !(given.isSingle() && given.output)) {
      throw UsageError("standard input (-) must be the only input, and needs -o OUT");
    }
  }
  if (!given.writesStream()) return;
  if (global.json) throw UsageError("--json and -o - both write to standard output");
  if (isTerminal(STDOUT_FILENO)) throw UsageError("standard output is a terminal; send it to a file");
}

std::string listOf(const std::string& file) {
  if (file == stream) return {std::istreambuf_iterator<char>(std::cin), {}};
  PosixFileManager disk("");
  const Bytes bytes = readFile(disk, file);
  return std::string(textOf(bytes));
}

std::vector<Path> inputsOf(const RepairArguments& given) {
  std::vector<Path> inputs(given.inputs.begin(), given.inputs.end());
  if (!given.filesFrom) return inputs;
  const auto listed = pathsInList(listOf(*given.filesFrom), given.listEndsWithZeros);
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

/// Tells of each file as it is done, and at the end of all.
class RepairTeller {
 public:
  RepairTeller(const GlobalOptions& global, const RepairArguments& given, size_t files)
      : global_(global), given_(given), files_(files) {
    if (given.report) report_.emplace(*given.report);
  }

  void tell(const RepairedFile& result);
  int tellAll(bool wasInterrupted, double seconds) const;

 private:
  std::string nameOf(const RepairedFile& result) const {
    return given_.readsStream() ? "Standard input" : result.file.input.string();
  }
  void tellInJSON(const RepairedFile& result) const;
  void tellFailure(const RepairedFile& result) const;
  void tellResult(const RepairedFile& result) const;

  const GlobalOptions& global_;
  const RepairArguments& given_;
  const size_t files_;
  std::optional<RepairReportFile> report_;
  RepairTotals totals_;
  int code_ = ExitCode::done;  ///< of the last file
};

void RepairTeller::tell(const RepairedFile& result) {
  totals_.add(result);
  code_ = exitCodeOf(result);
  const bool isKnown = result.wasDone && report_ && report_->knows(result.file.input);
  if (report_ && !isKnown && endOf(result) != RepairEnd::interrupted) report_->append(result);
  if (global_.json) return tellInJSON(result);
  result.report.isThere() || result.wasDone ? tellResult(result) : tellFailure(result);
}

void RepairTeller::tellInJSON(const RepairedFile& result) const {
  JSObject object = reportObject(result);
  object.set("input", given_.readsStream() ? stream : result.file.input.string());
  if (result.report.isThere()) object.set("path", result.report.output.string());
  if (!result.report.failure.empty()) object.set("error", result.report.failure);
  printJSON(object);
  if (!result.report.isThere() && !result.wasDone) tellFailure(result);
}

void RepairTeller::tellFailure(const RepairedFile& result) const {
  const RepairReport& report = result.report;
  if (report.kind == RepairReport::Kind::cancelled) {
    if (given_.isSingle()) printFailure(fmt::format("Interrupted; {} was not written.", result.file.output.string()));
    return;
  }
  if (result.neverBegan) return printFailure(report.failure);
  const std::string name = nameOf(result);
  std::string words = fmt::format("{} was not repaired: {}.", name, report.failure);
  if (!report.advice.empty()) {
    words += " " + report.advice;
  } else if (report.kind != RepairReport::Kind::refused) {
    words += fmt::format(" `tarn inspect {}` tells more.", name);
  }
  printFailure(words);
}

/// Of one file, notes and its path; of many, a line about each.
void RepairTeller::tellResult(const RepairedFile& result) const {
  std::vector<std::string> notes;
  if (result.report.note) notes.push_back(*result.report.note);
  for (const std::string& warning : result.report.warnings) notes.push_back("Warning: " + warning);
  const Path output = absolutePath(result.file.output);
  if (given_.isSingle()) {
    if (result.wasDone) notes.emplace_back("The result is there and not older than the file; nothing was done.");
    for (const std::string& note : notes) {
      if (given_.writesStream()) {
        printNote(note);
      } else if (!isQuiet()) {
        printLine(note);
      }
    }
    if (!given_.writesStream()) printPath(output);
    return;
  }
  if (isQuiet()) return printPath(output);
  printLine(fmt::format("[{}/{}] {:<10} {}", totals_.files(), files_, wordOf(endOf(result)), output.string()));
  for (const std::string& note : notes) printLine("    " + note);
}

int RepairTeller::tellAll(bool wasInterrupted, double seconds) const {
  if (given_.isSingle()) return wasInterrupted ? ExitCode::interrupted : code_;
  const size_t notDone = totals_.of(RepairEnd::partly) + totals_.of(RepairEnd::refused) + totals_.of(RepairEnd::failed);
  if (global_.json) {
    printJSON({{"result", wasInterrupted ? "interrupted"
                          : notDone == 0 ? "done"
                                         : "failed"},
               {"files", static_cast<int64_t>(files_)},
               {"seconds", seconds},
               {"ends", totals_.object()}});
  } else if (!isQuiet()) {
    printLine(fmt::format("{} of {} files in {:.1f} s:", totals_.files() - totals_.of(RepairEnd::interrupted), files_,
                          seconds));
    for (const std::string& line : totals_.table()) printLine(line);
    if (given_.report) printLine("The report is in " + *given_.report);
  }
  if (wasInterrupted) {
    printFailure("Interrupted; the same command with --skip-done goes on.");
    return ExitCode::interrupted;
  }
  return notDone == 0 ? ExitCode::done : ExitCode::failed;
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

int repairStreams(const GlobalOptions& global, const RepairArguments& given, const std::stop_token& cancel) {
  RepairStreams streams(given.options.scratch ? Path(*given.options.scratch) : fs::temp_directory_path());
  std::vector<Path> inputs = inputsOf(given);
  RepairTarget target = targetOf(given);
  try {
    if (given.readsStream()) inputs = {streams.readInput(cancel)};
    if (given.writesStream()) target.file = streams.output();
    const int code = repairAll(global, given, inputs, target, cancel);
    const bool isWritten = code == ExitCode::done || code == ExitCode::partly;
    if (given.writesStream() && isWritten) streams.writeOutput();
    return code;
  } catch (const CancellationError&) {
    printFailure("Interrupted; nothing was written.");
    return ExitCode::interrupted;
  }
}

int repairCommand(const GlobalOptions& global, const RepairArguments& given) {
  requireSense(global, given);
  std::stop_source cancel;
  const InterruptWatcher watcher([&cancel] { return cancel.request_stop(); });
  if (given.readsStream() || given.writesStream()) return repairStreams(global, given, cancel.get_token());
  return repairAll(global, given, inputsOf(given), targetOf(given), cancel.get_token());
}

void addPlaces(CLI::App& repair, RepairArguments& given) {
  repair.add_option("IN", given.inputs, "The files to repair, or directories (--recursive); - is standard input");
  repair.add_option("--files-from", given.filesFrom, "More of them, one a line; - is standard input");
  repair.add_flag("-0,--null", given.listEndsWithZeros,
                  "In that list a zero stands behind each, as `find -print0` writes it");
  repair.add_flag("-r,--recursive", given.isRecursive,
                  "Recordings in directories and below them, told by their endings");
  auto* const places = repair.add_option_group("places", "Where the results go; each appears whole or not at all");
  places->add_option("-o,--output", given.output, "The result of one file; - is standard output");
  auto* const directory = places->add_option("--output-dir", given.outputDirectory, "Results go below this directory");
  auto* const inPlace =
      places->add_flag("--in-place", given.isInPlace, "Results replace their files; NAME.orig is the old one");
  places->require_option(1);
  repair.add_option("--suffix", given.suffix, "Put ahead of the ending of each name")->needs(directory);
  repair.add_flag("--no-backup", given.lacksBackup, "Keep no NAME.orig")->needs(inPlace);
  repair.add_option("--scratch", given.options.scratch, "Directory for all new bytes but the results")
      ->check(CLI::ExistingDirectory);
}

}  // namespace

void addRepairCommand(CommandTable& table) {
  const auto given = std::make_shared<RepairArguments>();
  CLI::App* repair = table.app.add_subcommand("repair", "Repair local files");
  addPlaces(*repair, *given);
  repair->add_option("--jobs", given->jobs, "Files at a time (else as many as cores, at most 4)")
      ->check(CLI::Range(1U, 1024U));
  repair->add_flag("--skip-done", given->skipsDone, "Pass over files whose result is there and not older");
  repair->add_option("--report", given->report, "Append a JSON line for each file to this file");
  repair->add_flag("--skip-video-fix", given->options.skipVideoFix, "Only copy the file");
  repair->add_flag("--skip-audio-fix", given->options.skipAudioFix, "Leave sound and timing as they are");
  repair->add_option("--like", given->options.like,
                     "A healthy recording of the same device, for files whose moov is lost");
  repair->callback([&table, given] { table.chosen = [&table, given] { return repairCommand(table.global, *given); }; });
}

}  // namespace tarn
