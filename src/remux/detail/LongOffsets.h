#pragma once

#include "movie/MediaLayout.h"
#include "platform/Bytes.h"

namespace tarn {

/// Makes a `co64` of each `stco` in a new `moov` of which an offset would no longer fit 32 bits once the media have
/// moved (ISO/IEC 14496-12 8.7.5). `oldMoov` is where the old one is in the file. The offsets stay those of the file.
/// Throws corruptedMP4 if a size does not fit its field.
void widenChunkOffsets(Bytes& newMoov, const BoxHeader& oldMoov, const MediaLayout& layout);

}  // namespace tarn
