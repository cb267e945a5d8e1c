#include "engine/PlacingStep.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <string>
#include <vector>

#include "engine/InPlace.h"
#include "engine/KeptAttributes.h"
#include "engine/RepairRefusal.h"
#include "engine/SourceChanged.h"
#include "platform/Log.h"
#include "platform/host/PosixFileManager.h"
#include "presentation/RepairHarms.h"

namespace tarn {

void PlacingStep::run(ProcessingRun& run) {
  run.timings.printSummary();
  run.token->throwIfCancelled();
  const Path taken = chosen(run);
  isUnchanged_ = source_.path == source_.input && (taken == source_.path || !files_.isChanged(taken));
  if (!isUnchanged_ || result_.replaces == Result::Replaces::another) place(run, taken);
  run.outcome.setSaved();
}

/// The run's file, or the source if that file would do harm.
Path PlacingStep::chosen(ProcessingRun& run) const {
  // Of a video that broke off the step that cut it has proved what it keeps.
  if (run.state.lostEnd) return run.fileURL;
  const auto harms = harmsOfRepair(run.files, source_.path, run.files, run.fileURL, run.audioWasTranscoded);
  if (harms.empty()) return run.fileURL;
  run.warn(fmt::format("The file was left as it is, since its repair would do harm: {}", fmt::join(harms, "; ")));
  run.outcome.summary.done.clear();
  run.outcome.summary.after = run.outcome.summary.before;
  return source_.path;
}

void PlacingStep::place(ProcessingRun& run, const Path& taken) const {
  files_.materialise(taken, result_.made, [&] { run.token->throwIfCancelled(); });
  const auto missing = keepAttributes(source_.input, result_.made);
  if (!missing.empty()) {
    run.warn(
        fmt::format("What the system did not let the result take over from the file: {}", fmt::join(missing, ", ")));
  }
  PosixFileManager disk(result_.made.parent_path());
  if (disk.attributes(source_.input) != source_.facts) throw SourceChanged();
  if (result_.replaces != Result::Replaces::inputThatIsKept) return disk.replaceItem(result_.place, result_.made);
  try {
    keepOriginal(result_.place);
  } catch (const RepairRefusal&) {
    // Another process has repaired it meanwhile, and the name is that of its original.
    if (disk.attributes(source_.input) != source_.facts) throw SourceChanged();
    throw;
  }
  // If this fails, NAME.orig stays and leads to the file itself, which is in nobody's way. On a network folder a failed
  // call may have done its work, and then it is all that is left of the original.
  disk.replaceItem(result_.place, result_.made);
}

}  // namespace tarn
