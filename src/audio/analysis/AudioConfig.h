#pragma once

#include <cstdint>

#include "audio/analysis/AudioAnalysis.h"
#include "platform/FileManager.h"

namespace tarn {

struct AudioTimingInfo {
  int32_t timescale = 48000;
  int64_t sampleDelta = 1024;  ///< of the first `stts` entry
};

/// Reads the boxes; returns the defaults if they cannot be read. Never fails.
AudioTimingInfo parseAudioTimingInfo(FileManager& files, const Path& fileURL);

/// Never fails: what cannot be read does not match, and says why.
AudioConfigCheck analyzeAudioConfig(FileManager& files, const Path& fileURL);

}  // namespace tarn
