#pragma once

#include <vector>

#include "mp4/MP4BoxUtils.h"
#include "parameters/HEVCConfigurationSegment.h"
#include "parameters/ParameterScan.h"
#include "parameters/VideoCodec.h"
#include "pipeline/RemuxTimingHelper.h"
#include "platform/Bytes.h"
#include "platform/FileManager.h"
#include "presentation/RewriteCheck.h"

namespace tarn {

/// Gives the video track one sample entry for each segment; see MP4Remuxer::remuxWithMultipleSampleEntries. Where no
/// segments are given they are found, in the scan if there is one.
void remuxWithSeveralEntries(FileManager& files, const Path& path, const MP4BoxInfo& moovBox, ByteView moov,
                             int nalLengthSize, FileHandle& file, RemuxTimings& timings,
                             const std::vector<ConfigurationSegment>& segments, const ParameterScan* scan,
                             const RewriteCheck& check, const VideoCodec& codec);

}  // namespace tarn
