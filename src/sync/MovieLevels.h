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

/// A walker over the children.
BufferBoxWalker childWalker(ByteView data, const BoxHeader& parent);

/// The first child of one of these types; it may reach over its parent's end.
std::optional<BoxHeader> findChild(ByteView data, const BoxHeader& parent,
                                   std::initializer_list<std::string_view> types);

/// All children of this type that end within the buffer.
std::vector<BoxHeader> childrenOfType(ByteView data, const BoxHeader& parent, std::string_view type);

/// The handler_type of a track (ISO/IEC 14496-12 8.4.3).
std::optional<std::string> findHandlerType(ByteView data, const BoxHeader& trak);

}  // namespace tarn
