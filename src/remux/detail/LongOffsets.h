#pragma once

#include "mp4/MP4BoxUtils.h"
#include "platform/Bytes.h"
#include "remux/detail/MediaLayout.h"

namespace tarn {

/// Makes a `co64` of each `stco` in a new `moov` of which an offset would no longer fit 32 bits once the media have
/// moved (ISO/IEC 14496-12 8.7.5). `oldMoov` is where the old one is in the file. The offsets stay those of the file.
/// Throws corruptedMP4 where a size does not fit 32 bits.
void widenChunkOffsets(Bytes& newMoov, const MP4BoxInfo& oldMoov, const MediaLayout& layout);

}  // namespace tarn
