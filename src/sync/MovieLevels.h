#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mp4/BoxWalker.h"
#include "platform/Bytes.h"

namespace tarn {

// A `moov` in a buffer that begins at the box's first byte. Boxes are those of boxwalk::movieBuffer: 32-bit sizes,
// 8-byte headers.

/// The buffer as one box.
BoxHeader wholeBox(ByteView data, std::string_view type);

/// The first child of one of these types; it may reach over its parent's end.
std::optional<BoxHeader> findChild(ByteView data, const BoxHeader& parent,
                                   std::initializer_list<std::string_view> types);

/// All children of this type that end within the buffer.
std::vector<BoxHeader> childrenOfType(ByteView data, const BoxHeader& parent, std::string_view type);

/// The handler_type of a track (ISO/IEC 14496-12 8.4.3).
std::optional<std::string> findHandlerType(ByteView data, const BoxHeader& trak);

/// Why levels of boxes down to the sample tables cannot be walked to their ends.
enum class LevelDamage { none, badSize, longHeader };

/// The worst damage on the levels of the `moov` and of its `trak`, `mdia`, `minf`, `stbl` and `edts`: whoever changes
/// such a `moov` would miss what stands behind.
LevelDamage levelDamage(ByteView moov);

}  // namespace tarn
