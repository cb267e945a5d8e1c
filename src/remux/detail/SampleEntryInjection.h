#pragma once

#include "parameters/VideoCodec.h"
#include "platform/Bytes.h"

namespace tarn {

/// The `moov` with the configuration box in the first sample entry of its video track; see
/// MP4Remuxer::injectHvcCBoxIntoMoov.
Bytes injectConfigBoxIntoMoov(ByteView moov, ByteView configBox, const VideoCodec& codec);

}  // namespace tarn
