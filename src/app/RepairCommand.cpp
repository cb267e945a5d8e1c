#include <fmt/format.h>

#include <memory>
#include <optional>
#include <string>

#include "app/Commands.h"
#include "app/Interrupt.h"
#include "app/Output.h"
#include "app/ProgressPrinter.h"
#include "engine/Home.h"
#include "engine/Repair.h"
#include "platform/Error.h"

namespace tarn {
namespace {

Error unusable(const std::string& words) {
  return {"Repair", -1, words};
}

/// The repair that is asked for. Throws Error if its ends cannot be used.
RepairRequest checked(const RepairOptions& options) {
  namespace fs = std::filesystem;
  RepairRequest ends{.input = fs::absolute(options.input),
                     .output = fs::absolute(options.output),
                     .skipVideoFix = options.skipVideoFix,
                     .skipAudioFix = options.skipAudioFix};
  std::error_code ignored;
  if (!fs::exists(ends.input, ignored)) throw unusable(fmt::format("There is no file {}", options.input));
  if (!fs::is_regular_file(ends.input, ignored)) throw unusable(fmt::format("{} is not a file", options.input));
  if (!fs::is_directory(ends.output.parent_path(), ignored)) {
    throw unusable(fmt::format("The directory of {} does not exist; make it first", options.output));
  }
  if (!fs::exists(ends.output, ignored)) return ends;
  if (fs::equivalent(ends.input, ends.output, ignored)) {
    throw unusable("IN and OUT are the same file; name another OUT, since IN is never changed");
  }
  if (!fs::is_regular_file(ends.output, ignored)) {
    throw unusable(fmt::format("{} stands in the way and is not a file; name another OUT", options.output));
  }
  return ends;
}

RepairResult repair(const RepairRequest& request, const std::shared_ptr<CancellationToken>& token, bool showsProgress) {
  std::optional<ProgressPrinter> printer;
  if (showsProgress) printer.emplace();
  return repairFile(request, token, [&](const std::string& stage, double progress) {
    if (printer) printer->showStage(stage, static_cast<int64_t>(progress * 100));
  });
}

int reportFailure(const GlobalOptions& global, const RepairOptions& options, const std::string& words) {
  if (global.json) printJSON({{"result", "failed"}, {"input", options.input}, {"error", words}});
  printFailure(fmt::format("{0} was not repaired: {1}. `tarn inspect {0}` tells more.", options.input, words));
  return ExitCode::failed;
}

}  // namespace

int repairCommand(const GlobalOptions& global, const RepairOptions& options) {
  const QuietLog quiet(global.verbose);
  const auto token = std::make_shared<CancellationToken>();
  const InterruptWatcher watcher([token] {
    token->cancel();
    return true;
  });
  const RepairRequest request = checked(options);
  RepairResult result;
  try {
    result = repair(request, token, !global.json);
  } catch (const std::exception& failure) {
    return reportFailure(global, options, failure.what());
  }
  const RunOutcome& outcome = result.outcome;
  if (outcome.kind == RunOutcome::Kind::failed) return reportFailure(global, options, outcome.words);
  if (outcome.kind == RunOutcome::Kind::cancelled) {
    if (global.json) printJSON({{"result", "interrupted"}, {"input", options.input}});
    printFailure(fmt::format("Interrupted; {} was not written.", options.output));
    return ExitCode::interrupted;
  }
  if (global.json) {
    printJSON({{"result", outcome.isPartly ? "partly" : "repaired"},
               {"input", options.input},
               {"path", request.output.string()},
               {"note", result.note ? JSValue(*result.note) : JSValue()},
               {"warnings", JSValue::Array(outcome.leftAlone.begin(), outcome.leftAlone.end())}});
  } else {
    if (result.note) printLine(*result.note);
    for (const std::string& warning : outcome.leftAlone) printLine("Warning: " + warning);
    printLine(request.output.string());
  }
  return outcome.isPartly ? ExitCode::partly : ExitCode::done;
}

}  // namespace tarn
