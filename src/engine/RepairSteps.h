#pragma once

#include "audio/AudioStep.h"
#include "download/FirstRecord.h"
#include "fragments/FragmentsStep.h"
#include "pipeline/ProcessingStep.h"
#include "presentation/Timeline.h"
#include "remux/RemuxStep.h"
#include "sync/SyncStep.h"

namespace tarn {

/// The steps that repair a file, in the order of the pipeline: the same for a download and for a local file.
class RepairSteps {
 public:
  /// So many threads encode sound; 0: as many as cores, at most 4.
  explicit RepairSteps(unsigned encoderWorkers = 0) : audio_(encoderWorkers) {}

  /// Both must outlive the steps' use.
  ProcessingSteps withLast(ProcessingStep& last) {
    return {.fragments = &fragments_,
            .remux = &remux_,
            .audio = &audio_,
            .sync = &sync_,
            .last = &last,
            .deriveFlags = deriveFlags,
            .readTimeline = [](FileManager& files, const Path& file) { return readTimeline(files, file); }};
  }

 private:
  FragmentsStep fragments_;
  RemuxStep remux_;
  AudioStep audio_;
  SyncStep sync_;
};

}  // namespace tarn
