#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "pipeline/ProcessingState.h"
#include "platform/Clock.h"
#include "platform/FileManager.h"

namespace tarn {

/// What is known of a file that enters the pipeline.
struct PipelineEntry {
  int64_t id = 0;
  std::string filename;
  std::optional<std::string> album;
  Path fileURL;
  bool skipVideoFix = false;
  bool skipAudioFix = false;
};

/// Looks at the file's codec and audio and makes the record with which its run begins: its flags steer the whole run. A
/// codec that cannot be detected is no failure.
ProcessingState makeFirstRecord(FileManager& files, const Clock& clock, const PipelineEntry& entry);

}  // namespace tarn
