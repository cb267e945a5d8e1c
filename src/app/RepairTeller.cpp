#include "app/RepairTeller.h"

#include <fmt/format.h>

#include <filesystem>

#include "app/Output.h"

namespace tarn {

RepairTeller::RepairTeller(const GlobalOptions& global, const RepairArguments& given, size_t files)
    : global_(global), given_(given), files_(files) {
  if (given.report) report_.emplace(*given.report);
}

/// Standard input and output have gone through files of other names.
JSObject RepairTeller::objectOf(const RepairedFile& result) const {
  JSObject object = reportObject(result);
  if (given_.readsStream()) object.set("input", RepairArguments::stream);
  if (given_.writesStream()) object.set("output", RepairArguments::stream);
  return object;
}

void RepairTeller::tell(const RepairedFile& result) {
  totals_.add(result);
  code_ = exitCodeOf(result);
  const bool isKnown = result.wasDone && report_ && report_->knowsResultOf(result.file.input);
  if (report_ && !isKnown && endOf(result) != RepairEnd::interrupted) report_->append(objectOf(result));
  if (global_.json) return tellInJSON(result);
  result.report.isThere() || result.wasDone ? tellResult(result) : tellFailure(result);
}

void RepairTeller::tellInJSON(const RepairedFile& result) const {
  JSObject object = objectOf(result);
  if (!given_.readsStream()) object.set("input", result.file.input.string());
  if (result.report.isThere()) object.set("path", result.report.output.string());
  if (!result.report.failure.empty()) object.set("error", result.report.failure);
  printJSON(object);
  if (!result.report.isThere() && !result.wasDone) tellFailure(result);
}

void RepairTeller::tellFailure(const RepairedFile& result) const {
  const RepairReport& report = result.report;
  if (report.kind == RepairReport::Kind::cancelled) {
    const std::string output = given_.writesStream() ? "the result" : result.file.output.string();
    if (given_.isSingle()) printFailure(fmt::format("Interrupted; {} was not written.", output));
    return;
  }
  if (result.neverBegan) return printFailure(report.failure);
  const std::string name = given_.readsStream() ? "Standard input" : result.file.input.string();
  std::string words = fmt::format("{} was not repaired: {}.", name, report.failure);
  if (!report.advice.empty()) {
    words += " " + report.advice;
  } else if (report.kind != RepairReport::Kind::refused && !given_.readsStream()) {
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
  const size_t ended = totals_.files() - totals_.of(RepairEnd::interrupted);
  const bool isCutOff = wasInterrupted && ended < files_;
  if (given_.isSingle()) return isCutOff ? ExitCode::interrupted : code_;
  const size_t notDone = totals_.of(RepairEnd::partly) + totals_.of(RepairEnd::refused) + totals_.of(RepairEnd::failed);
  if (global_.json) {
    printJSON({{"result", isCutOff       ? "interrupted"
                          : notDone == 0 ? "done"
                                         : "failed"},
               {"files", static_cast<int64_t>(files_)},
               {"seconds", seconds},
               {"ends", totals_.object()}});
  } else if (!isQuiet()) {
    printLine(fmt::format("{} of {} files in {:.1f} s:", ended, files_, seconds));
    for (const std::string& line : totals_.table()) printLine(line);
    if (given_.report) printLine("The report is in " + *given_.report);
  }
  if (isCutOff) {
    printFailure("Interrupted; the same command with --skip-done goes on.");
    return ExitCode::interrupted;
  }
  return notDone == 0 ? ExitCode::done : ExitCode::failed;
}

}  // namespace tarn
