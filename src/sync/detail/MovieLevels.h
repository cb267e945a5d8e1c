#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mp4/BoxWalker.h"
#include "platform/Bytes.h"

namespace tarn {

// A `moov` in a buffer that begins at the box's first byte, with an 8-byte header. Boxes are those of
// boxwalk::openChildren: a box with a 64-bit size, or one that reaches to the end of its parent, is a box like others.

/// The buffer as one box.
BoxHeader wholeBox(ByteView data, std::string_view type);

/// A walker over the children.
BufferBoxWalker childWalker(ByteView data, const BoxHeader& parent);

/// The first child of one of these types; it may reach over its parent's end.
std::optional<BoxHeader> findChild(ByteView data, const BoxHeader& parent,
                                   std::initializer_list<std::string_view> types);

/// All children of this type that end within the buffer.
std::vector<BoxHeader> childrenOfType(ByteView data, const BoxHeader& parent, std::string_view type);

/// Where the box would begin if its header had 8 bytes: what the fields of `layout` count from.
uint64_t fieldBase(const BoxHeader& box);

/// The handler_type of a track (ISO/IEC 14496-12 8.4.3).
std::optional<std::string> findHandlerType(ByteView data, const BoxHeader& trak);

/// The track_ID of a track (ISO/IEC 14496-12 8.3.2).
std::optional<uint32_t> findTrackID(ByteView data, const BoxHeader& trak);

/// Looks for what an edit of this `moov` could not keep whole: media inside of it, and a box on the way from a track to
/// its chunk offsets that reaches over the end of its parent or has a 64-bit size. Throws AVSyncError::fixError with
/// the box and its place; `place` is that of the `moov` in its file.
void requireEditable(ByteView moov, uint64_t place);

}  // namespace tarn
