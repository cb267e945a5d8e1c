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

/// The engine around the single run of a repair: shows its progress, keeps its warnings and its outcome. Does not store
/// its record: a repair that was cut off begins anew.
class SingleRunHost : public ProcessingHost {
 public:
  explicit SingleRunHost(bool showsProgress) {
    if (showsProgress) printer_.emplace();
  }

  bool saveRecord(const CancellationToken& /*token*/, const ProcessingState& /*record*/) override { return false; }
  void progressUpdated(const DownloadTaskPointer& /*download*/, double progress, const std::string& stage) override {
    if (printer_) printer_->showStage(stage, static_cast<int64_t>(progress * 100));
  }
  void replaceDownload(const DownloadTaskPointer& /*download*/) override {}
  bool endRun(const RunEnd& end) override {
    isFinished_ = end.ending == ProcessingGate::Ending::finished;
    if (end.ending == ProcessingGate::Ending::failed) failure_ = end.download->snapshot().reason.failure;
    return false;
  }
  void warned(const std::string& words) override { warnings_.push_back(words); }

  const std::vector<std::string>& warnings() const { return warnings_; }

  /// True for a finished run, false for one that was cancelled. Throws what a failed one failed with.
  bool isFinished() const {
    if (failure_) std::rethrow_exception(failure_);
    return isFinished_;
  }

 private:
  std::optional<ProgressPrinter> printer_;
  std::vector<std::string> warnings_;
  bool isFinished_ = false;
  std::exception_ptr failure_;
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
  bool isFinished = false;          ///< false when it was interrupted
  std::optional<std::string> note;  ///< what was not repaired, and why
  std::vector<std::string> warnings;
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

  SingleRunHost host(showsProgress);
  NamesInTheMaking names;
  RepairSteps steps;
  PlacingStep last(ends.input, place);
  ProcessingDriver driver(files, clock, store, names, host, steps.withLast(last));
  driver.continueProcessing(
      record, std::make_shared<DownloadTask>(files, record.downloadId, "", record.album, record.filename), token);
  result.isFinished = host.isFinished();
  result.warnings = host.warnings();
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
  const InterruptWatcher watcher([token] { token->cancel(); });
  const Ends ends = checkedEnds(options);
  Repair outcome;
  try {
    outcome = repair(ends, options, !global.json, token);
  } catch (const std::exception& failure) {
    return reportFailure(global, options, failure.what());
  }
  if (!outcome.isFinished) {
    if (global.json) printJSON({{"result", "interrupted"}, {"input", options.input}});
    printFailure(fmt::format("Interrupted; {} was not written.", options.output));
    return ExitCode::interrupted;
  }
  if (global.json) {
    printJSON({{"result", "repaired"},
               {"input", options.input},
               {"path", ends.output.string()},
               {"note", outcome.note ? JSValue(*outcome.note) : JSValue()},
               {"warnings", JSValue::Array(outcome.warnings.begin(), outcome.warnings.end())}});
  } else {
    if (outcome.note) printLine(*outcome.note);
    for (const std::string& warning : outcome.warnings) printLine("Warning: " + warning);
    printLine(ends.output.string());
  }
  return ExitCode::done;
}

}  // namespace tarn
