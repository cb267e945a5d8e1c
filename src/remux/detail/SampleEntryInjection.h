#pragma once

#include <string_view>

#include "parameters/VideoCodec.h"
#include "platform/Bytes.h"

namespace tarn {

/// The `moov` with the configuration box in the first sample entry of its video track; see
/// MP4Remuxer::injectHvcCBoxIntoMoov.
Bytes injectConfigBoxIntoMoov(ByteView moov, ByteView configBox, const VideoCodec& codec);

/// The `sinf` box with a `frma` that names the codec; see MP4Remuxer::updateFrmaInSinfData.
Bytes updateFrmaInSinfData(ByteView sinf, std::string_view targetCodec);

}  // namespace tarn
