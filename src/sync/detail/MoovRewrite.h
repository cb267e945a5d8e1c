#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "mp4/ChunkOffsetTable.h"
#include "mp4/MP4BoxUtils.h"
#include "platform/Bytes.h"
#include "sync/SyncFixOrder.h"

namespace tarn {

/// What is to be changed in a `moov`.
struct MoovEdits {
  std::optional<Bytes> videoEdtsData;      ///< a whole `edts`; without one the track's own stays
  std::optional<Bytes> audioEdtsData;      ///< likewise
  int64_t videoTrackDuration = 0;          ///< movie timescale; 0 or less leaves the `tkhd` alone
  int64_t audioTrackDuration = 0;          ///< likewise
  std::optional<Bytes> convertedCttsData;  ///< a whole `ctts` that takes the place of the one below
  uint64_t originalCttsOffset = 0;         ///< in the file
  uint64_t originalCttsSize = 0;           ///< bytes; 0 when there is none
};

/// A whole `edts` with these entries (ISO/IEC 14496-12 8.6.5), of which there are at most 5; empty without entries.
Bytes edtsOf(const std::vector<EditListEntry>& entries);

// Operations on a `moov` in a buffer that begins at the box's first byte, and that requireEditable lets through. A
// header or track that is missing or too short is passed over; a change that the sizes cannot express throws
// AVSyncError::fixError.

/// Puts the tables of `edits` into the `moov` and returns by how many bytes it has grown. The boxes are those of the
/// file that the buffer was read from.
int64_t applyTables(Bytes& moovData, const MP4BoxInfo& moovBox, const MP4BoxInfo& videoTrakBox,
                    const std::optional<MP4BoxInfo>& audioTrakBox, const MoovEdits& edits);

/// The same for an order: lists and durations. Throws AVSyncError::fixError where a track that it names is not there
/// once.
int64_t applyOrder(Bytes& moovData, const SyncFixOrder& order);

/// Replaces the track's `edts`, or puts one behind its `tkhd`; an empty one removes it. Returns by how many bytes the
/// buffer has grown.
int64_t updateTrackEdts(Bytes& moovData, size_t trakOffset, ByteView newEdtsData);

/// Sets the duration in the `tkhd` of the first track of this handler type; a 32-bit field takes what fits it.
void updateTkhdDuration(Bytes& moovData, std::string_view trackType, int64_t duration);

/// The same for the `mvhd`.
void updateMvhdDuration(Bytes& moovData, int64_t duration);

/// Moves the chunk offsets of every track.
void adjustChunkOffsets(Bytes& moovData, const ChunkOffsetShift& shift);

}  // namespace tarn
