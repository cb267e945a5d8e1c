#include "engine/PlacingStep.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <string>
#include <vector>

#include "platform/Error.h"
#include "platform/Log.h"
#include "platform/host/PosixFileManager.h"
#include "presentation/RepairHarms.h"

namespace tarn {

void PlacingStep::run(ProcessingRun& run) {
  run.timings.printSummary();
  run.token->throwIfCancelled();
  std::vector<std::string> harms;
  // Of a video that broke off the step that cut it has proved what it keeps.
  if (!run.outcome.isPartly) {
    harms = harmsOfRepair(run.files, source_.path, run.files, run.fileURL, run.audioWasTranscoded);
  }
  if (!harms.empty()) {
    run.warn(fmt::format("The file was left as it is, since its repair would do harm: {}", fmt::join(harms, "; ")));
    run.outcome.summary.done.clear();
    run.outcome.summary.after = run.outcome.summary.before;
  }
  const Path& taken = harms.empty() ? run.fileURL : source_.path;
  files_.materialise(taken, result_.made, [&] { run.token->throwIfCancelled(); });
  PosixFileManager disk(result_.made.parent_path());
  if (disk.attributes(source_.input) != source_.facts) {
    throw Error("Repair", -1, "the file was changed while it was read");
  }
  disk.replaceItem(result_.place, result_.made);
  run.outcome.setSaved();
}

}  // namespace tarn
