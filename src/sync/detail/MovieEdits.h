#pragma once

#include <optional>
#include <vector>

#include "movie/MovieTree.h"
#include "platform/Bytes.h"
#include "sync/SyncFixOrder.h"

namespace tarn {

struct MoovEdits;

/// A whole `edts` with these entries (ISO/IEC 14496-12 8.6.5), of which there are at most 5; empty without entries.
Bytes edtsOf(const std::vector<EditListEntry>& entries);

// Edits of a `moov` that requireEditable lets through. A header that is missing or too short is skipped; what
// cannot be expressed throws MovieError, a track that is not there AVSyncError::fixError.

/// Replaces the track's first `edts`, or puts one after its `tkhd`; an empty one removes it.
void putEditList(MovieBox& trak, ByteView edts);

/// All that `edits` asks for. The boxes are those of the file that the `moov` was read from.
void applyEdits(MovieBox& moov, const BoxHeader& moovBox, const BoxHeader& videoTrakBox,
                const std::optional<BoxHeader>& audioTrakBox, const MoovEdits& edits);

/// The same for an order: lists and durations.
void applyOrder(MovieBox& moov, const SyncFixOrder& order);

}  // namespace tarn
