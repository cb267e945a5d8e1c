#include <fmt/format.h>
#include <tarn/inspect.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <vector>

#include "app/Commands.h"
#include "app/FailureReport.h"
#include "app/Output.h"
#include "app/Terminal.h"
#include "platform/Error.h"
#include "platform/TempFile.h"
#include "platform/host/PosixFileManager.h"

namespace tarn {
namespace {

struct InspectArguments {
  std::vector<std::string> files;
  bool isFull = false;
  std::string plot;
};

/// One file, as a line of the table shows it.
struct Line {
  std::string file;
  std::string verdict;
  std::string words;
  int exitCode = ExitCode::done;
};

int exitCodeOf(const FileInspection& inspection) {
  switch (inspection.verdict) {
    case FileInspection::Verdict::nothingToRepair:
    case FileInspection::Verdict::leftAlone:
      return ExitCode::done;
    case FileInspection::Verdict::repairable:
      return ExitCode::repairable;
    case FileInspection::Verdict::broken:
      return ExitCode::refused;
  }
  return ExitCode::failed;
}

const char* verdictWord(FileInspection::Verdict verdict) {
  switch (verdict) {
    case FileInspection::Verdict::nothingToRepair:
      return "healthy";
    case FileInspection::Verdict::repairable:
      return "repairable";
    case FileInspection::Verdict::leftAlone:
      return "left alone";
    case FileInspection::Verdict::broken:
      return "broken";
  }
  return "";
}

/// "the first fault (and 2 more)".
std::string shortWords(const std::vector<FileInspection::Problem>& problems) {
  if (problems.empty()) return "";
  if (problems.size() == 1) return problems.front().words;
  return fmt::format("{} (and {} more)", problems.front().words, problems.size() - 1);
}

Line lineOf(const std::string& file, const FileInspection& inspection) {
  return {file, verdictWord(inspection.verdict), shortWords(inspection.problems), exitCodeOf(inspection)};
}

/// The plot appears whole or not at all; a link of this name stays one.
void writePlot(const std::string& place, const std::string& plot) {
  PosixFileManager disk("");
  try {
    std::error_code error;
    const Path target = std::filesystem::weakly_canonical(absolutePath(place), error);
    if (error) throw PosixError(error.value(), place);
    TempFile made(disk, hiddenSibling(target));
    const auto file = disk.open(made.path(), OpenMode::exclusive);
    file->write(bytesOf(plot));
    file->close();
    disk.replaceItem(target, made.path());
    made.keep();
  } catch (const PosixError& failure) {
    throw PosixError(failure.code(), "write the plot " + place);
  }
}

/// Inspects one file of many, and prints its JSON object if that is asked for.
Line inspectOne(const GlobalOptions& global, const std::string& file) {
  try {
    const FileInspection inspection = inspectFile(file);
    if (global.json) printJSON(*JSObject::parse(inspection.json));
    return lineOf(file, inspection);
  } catch (const std::exception& failure) {
    const bool mayTryAgain = failureOf(std::current_exception()).mayTryAgain;
    if (global.json) {
      printJSON({{"result", "failed"}, {"file", file}, {"error", failure.what()}, {"mayTryAgain", mayTryAgain}});
    }
    return {file, "unreadable", failure.what(), ExitCode::failed};
  }
}

void printTable(const std::vector<Line>& lines) {
  size_t nameWidth = 0;
  for (const Line& line : lines) nameWidth = std::max(nameWidth, std::min<size_t>(columnsOf(line.file), 48));
  for (const Line& line : lines) {
    const std::string row = fmt::format("{:<{}}  {:<10}  {}", line.file, nameWidth, line.verdict, line.words);
    printLine(row.substr(0, row.find_last_not_of(' ') + 1));
  }
  std::string counts;
  for (const char* verdict : {"healthy", "repairable", "left alone", "broken", "unreadable"}) {
    const auto count = std::ranges::count(lines, verdict, &Line::verdict);
    if (count > 0) counts += fmt::format("{}{} {}", counts.empty() ? "" : ", ", count, verdict);
  }
  printLine(fmt::format("{} files: {}", lines.size(), counts));
}

int inspectMany(const GlobalOptions& global, const std::vector<std::string>& files) {
  std::vector<Line> lines;
  lines.reserve(files.size());
  for (const std::string& file : files) lines.push_back(inspectOne(global, file));
  if (!global.json) printTable(lines);
  const bool areAllDone = std::ranges::all_of(lines, [](const Line& line) { return line.exitCode == ExitCode::done; });
  return areAllDone ? ExitCode::done : ExitCode::failed;
}

int inspectAlone(const GlobalOptions& global, const InspectArguments& arguments) {
  const std::string& file = arguments.files.front();
  try {
    const FileInspection inspection = inspectFile(file);
    if (!arguments.plot.empty()) writePlot(arguments.plot, inspection.plot);
    if (global.json) {
      printJSON(*JSObject::parse(inspection.json));
    } else {
      std::string text = arguments.isFull ? inspection.text : inspection.brief;
      text.pop_back();  // its last line's end
      printText(text);
    }
    return exitCodeOf(inspection);
  } catch (const std::exception&) {
    return reportFailure(global, std::current_exception(), {{"file", file}});
  }
}

/// Throws UsageError for a plot of several files, and for one that might replace a video.
void requirePossible(const InspectArguments& arguments) {
  if (arguments.plot.empty()) return;
  if (arguments.files.size() > 1) throw UsageError("--plot draws one file; name one FILE alone.");
  if (!arguments.plot.ends_with(".svg")) throw UsageError("The name for --plot must end with .svg.");
}

int inspectCommand(const GlobalOptions& global, const InspectArguments& arguments) {
  requirePossible(arguments);
  const InterruptWatcher watcher = endAtInterrupt(global);
  if (arguments.files.size() == 1) return inspectAlone(global, arguments);
  if (!arguments.isFull || global.json) return inspectMany(global, arguments.files);
  int code = ExitCode::done;
  for (const std::string& file : arguments.files) {
    InspectArguments one = arguments;
    one.files = {file};
    if (inspectAlone(global, one) != ExitCode::done) code = ExitCode::failed;
  }
  return code;
}

}  // namespace

void addInspectCommand(CommandTable& table) {
  const auto given = std::make_shared<InspectArguments>();
  CLI::App* inspect =
      table.app.add_subcommand("inspect", "Tell what is wrong with a file and what a repair would do about it");
  inspect->add_option("FILE", given->files, "Files are not changed; several are told in a table")
      ->required()
      ->type_name("");
  inspect->add_flag("--full", given->isFull,
                    "Tell all details: parts of the repair, tracks, tables, edit lists, boxes");
  inspect->add_option("--plot", given->plot, "Draw picture and sound, before and after a repair, into this SVG file")
      ->type_name("FILE");
  inspect->footer(
      "Exit codes: 0 nothing to do, 3 repairable, 4 beyond repair or no video, 1 the file cannot be opened.\n"
      "Of several files: 1 if any is not 0.");
  inspect->callback(
      [&table, given] { table.chosen = [&table, given] { return inspectCommand(table.global, *given); }; });
}

}  // namespace tarn
