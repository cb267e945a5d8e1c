#pragma once

#include "parameters/VideoCodec.h"
#include "pipeline/CancellationToken.h"
#include "pipeline/RemuxTimingHelper.h"
#include "platform/FileManager.h"
#include "presentation/RewriteCheck.h"
#include "remux/VideoPlan.h"

namespace tarn {

/// The remux of a file with parameter sets of its stream, or as the plan says if there is one; see
/// MP4Remuxer::remuxHEVCWithParameterExtraction.
void remuxWithParameterExtraction(FileManager& files, const Path& path, const VideoCodec& codec,
                                  const CancellationToken* token, RemuxTimings& timings, const VideoPlan* plan,
                                  const RewriteCheck& check);

}  // namespace tarn
