#include <fmt/format.h>

#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/Commands.h"
#include "app/Interrupt.h"
#include "app/Output.h"
#include "app/ProgressPrinter.h"
#include "download/FirstRecord.h"
#include "engine/Home.h"
#include "engine/PlacingStep.h"
#include "engine/PrivateHome.h"
#include "engine/RepairSteps.h"
#include "pipeline/ProcessingStateManager.h"
#include "platform/host/PosixFileManager.h"
#include "remux/LeftAlone.h"

namespace tarn {
namespace {

/// The engine around the single run of a repair: shows its progress and keeps its outcome. Does not store its record: a
/// repair that was cut off begins anew.
class SingleRun : public RunListener {
 public:
  explicit SingleRun(bool showsProgress) {
    if (showsProgress) printer_.emplace();
  }

  void progressUpdated(int64_t /*id*/, double progress, const std::string& stage) override {
    if (printer_) printer_->showStage(stage, static_cast<int64_t>(progress * 100));
  }
  bool ended(const ProcessingRun& run) override {
    outcome_ = run.outcome;
    return false;
  }

  const RunOutcome& outcome() const { return outcome_; }

 private:
  std::optional<ProgressPrinter> printer_;
  RunOutcome outcome_;
};

/// Both ends of a repair, absolute.
struct Ends {
  Path input;
  Path output;
};

Error unusable(const std::string& words) {
  return {"Repair", -1, words};
}

Ends checkedEnds(const RepairOptions& options) {
  namespace fs = std::filesystem;
  Ends ends{fs::absolute(options.input), fs::absolute(options.output)};
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

/// The name that the result's place really has: a link stays, and the file that it leads to is replaced.
Path placeOf(const Path& output) {
  std::error_code failure;
  Path place = std::filesystem::canonical(output, failure);
  return failure ? output : place;
}

struct Repair {
  RunOutcome outcome;
  std::optional<std::string> note;  ///< what was not repaired, and why
};

/// Copies the input into a home of its own, runs all steps on the copy and puts it in its place.
Repair repair(const Ends& ends, const RepairOptions& options, bool showsProgress,
              const std::shared_ptr<CancellationToken>& token) {
  const Path place = placeOf(ends.output);
  const PrivateHome home(place.parent_path());
  // A repair that was cut off begins anew: only the result is flushed, when it takes its place.
  PosixFileManager files(home.path(), Durability::scratch);
  const Path copy = files.documentsDirectory(true) / "video.mp4";
  files.copyItem(ends.input, copy);

  Repair result;
  SystemClock clock;
  UserDefaults defaults(files, home.path() / "Defaults");
  ProcessingStateManager store(defaults, files, clock);
  const ProcessingState record = makeFirstRecord(files, clock,
                                                 {.filename = copy.filename().string(),
                                                  .album = std::nullopt,
                                                  .fileURL = copy,
                                                  .skipVideoFix = options.skipVideoFix,
                                                  .skipAudioFix = options.skipAudioFix});
  if (!record.needsRemuxing && !options.skipVideoFix) {
    if (const auto why = whyTheVideoIsLeftAlone(files, copy)) {
      result.note = fmt::format("The video was left as it is: {}.", *why);
    }
  }

  SingleRun listener(showsProgress);
  NamesInTheMaking names;
  RepairSteps steps;
  PlacingStep last(ends.input, place);
  ProcessingDriver(files, clock, store, names, listener, steps.withLast(last)).continueProcessing(record, token);
  result.outcome = listener.outcome();
  return result;
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
  const Ends ends = checkedEnds(options);
  Repair result;
  try {
    result = repair(ends, options, !global.json, token);
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
    printJSON({{"result", "repaired"},
               {"input", options.input},
               {"path", ends.output.string()},
               {"note", result.note ? JSValue(*result.note) : JSValue()},
               {"warnings", JSValue::Array(outcome.leftAlone.begin(), outcome.leftAlone.end())}});
  } else {
    if (result.note) printLine(*result.note);
    for (const std::string& warning : outcome.leftAlone) printLine("Warning: " + warning);
    printLine(ends.output.string());
  }
  return ExitCode::done;
}

}  // namespace tarn
