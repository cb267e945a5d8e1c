#include "engine/PlacingStep.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "platform/Log.h"
#include "platform/host/PosixFileManager.h"
#include "presentation/RepairHarms.h"

namespace tarn {

void PlacingStep::run(ProcessingRun& run) {
  run.timings.printSummary();
  run.token->throwIfCancelled();
  const auto harms = harmsOfRepair(run.files, source_, run.files, run.fileURL, run.audioWasTranscoded);
  // The run cleans up the file that it worked on, so the place gets another name of it.
  Path result = run.files.temporaryDirectory() / "result";
  if (!harms.empty()) {
    run.warn(fmt::format("The file was left as it is, since its repair would do harm: {}", fmt::join(harms, "; ")));
    run.files.copyItem(source_, result);
  } else {
    try {
      run.files.linkItem(run.fileURL, result);
    } catch (const PosixError&) {
      result = run.fileURL;  // a file system without hard links
    }
  }
  PosixFileManager(place_.parent_path()).replaceItem(place_, result);
  run.outcome.setSaved();
}

}  // namespace tarn
