#pragma once

#include <optional>
#include <string>

#include "platform/Bytes.h"

namespace tarn {

/// The walkers over buffers know 32-bit sizes only and stop where a size or a type is no good, so in an odd `moov` they
/// may miss a track or a table that a player finds, and an edit in place would leave it wrong. So would an edit of one
/// whose size swallows the media, which then move within it. Looks for that along the way from the `moov` to each
/// track's `stsd`, `stco` and `co64`, and says what it is; nothing when the buffer, a whole `moov` with an 8-byte
/// header, can be edited.
std::optional<std::string> whatForbidsEditing(ByteView moov);

/// The same for an editor that steps over odd boxes beside the way: only the boxes on the way must be plain.
std::optional<std::string> whatForbidsEditingTheWay(ByteView moov);

}  // namespace tarn
