#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "mp4/BoxWalker.h"
#include "mp4/ChunkOffsetTable.h"

namespace tarn {

// Items of a `meta` box (ISO/IEC 14496-12 8.11.3) say where they are in the file, as chunks do, and move with it. Only
// those of construction method 0 that are in this file are looked at.

/// Corrects the items of an `iloc`, given without its header, after the file's bytes moved. Its length stays: a common
/// move of all extents goes into the base offset, if there is one. A box that ends before its items is corrected
/// as far as it goes. False if an item is in none of the moves, or its new place does not fit its field; a part of
/// the items may be corrected then.
bool moveItems(std::span<uint8_t> ilocContents, std::span<const MediaMove> moves);

/// The same for every `iloc` of a `moov` in a buffer, its tracks and user data included.
bool moveItemsInMoov(std::span<uint8_t> moov, std::span<const MediaMove> moves);

/// The `iloc` boxes of a `meta` that begins at the top level of a file. Moves the file's position.
std::vector<BoxHeader> findItemLocations(FileHandle& file, const BoxHeader& meta);

}  // namespace tarn
