#pragma once

#include <optional>

#include "kind/Kind.h"
#include "platform/Bytes.h"

namespace tarn {

/// The kind of a file that is neither a movie in boxes nor text, by how it begins; nothing for what is not known.
std::optional<Kind> kindBySignature(ByteView head);

}  // namespace tarn
