#pragma once

#include <span>

#include "mp4/ChunkOffsetTable.h"
#include "mp4/MP4BoxUtils.h"
#include "pipeline/RemuxTimingHelper.h"
#include "platform/Bytes.h"
#include "platform/FileManager.h"
#include "presentation/RewriteCheck.h"

namespace tarn {

/// ChunkOffsetTable::adjustAllInMoov, of which the log tells.
void adjustChunkOffsets(std::span<uint8_t> moov, const ChunkOffsetShift& shift);

/// Writes the file anew with another `moov`, and replaces it in one step; see MP4Remuxer::writeAtomicMP4.
void writeAtomicMP4(FileManager& files, const Path& path, const MP4BoxInfo& moovBox, Bytes newMoov, FileHandle& file,
                    RemuxTimings& timings, const RewriteCheck& check);

}  // namespace tarn
