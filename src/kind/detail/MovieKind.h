#pragma once

#include <optional>

#include "kind/Kind.h"
#include "platform/Bytes.h"
#include "platform/FileManager.h"

namespace tarn {

/// The kind of a file in boxes (ISO/IEC 14496-12, QuickTime without an `ftyp` too), HEIF pictures included; nothing for
/// one that has no `moov` and does not begin with a box of a movie. Moves the file's position.
std::optional<Kind> movieKind(FileHandle& file, ByteView head);

}  // namespace tarn
