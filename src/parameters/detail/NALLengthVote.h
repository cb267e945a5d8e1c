#pragma once

#include <span>

#include "mp4/MP4SampleTableParser.h"
#include "parameters/detail/ScanRules.h"
#include "platform/FileManager.h"

namespace tarn {

/// The size of the samples' NAL length prefix, 4 or 2 bytes, by vote of the samples; see NALUnitParser.
int detectLengthSize(FileHandle& file, std::span<const SampleInfo> samples, const ScanRules& rules);

}  // namespace tarn
