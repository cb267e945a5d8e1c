#pragma once

#include "movie/EditRules.h"
#include "platform/Bytes.h"
#include "platform/FileManager.h"

namespace tarn {

/// Looks for what an edit of this `moov` could not keep whole: media inside of it, and a box on the way to a track's
/// chunk offsets (trak, mdia, minf, stbl, stco, co64) that reaches over the end of its parent or has a header that
/// `rules.way` forbids. Boxes beside the way may be odd. `moov` has an 8-byte header; `place` is that of the `moov` in
/// its file. Throws MovieError: damaged, with the box and its place.
void requireEditable(ByteView moov, uint64_t place, const EditRules& rules);

/// Reads a `moov`; of a cut one all that is there, if `rules` take it. Memory is taken for what is there. Throws
/// MovieError: unreadable, cutOff, longSize, doesNotFit for one of more than 4 GiB.
Bytes readMoov(FileHandle& file, const BoxHeader& moov, const EditRules& rules);

}  // namespace tarn
