#pragma once

#include <string>

#include "platform/Bytes.h"

namespace tarn {

/// What libmagic calls the start of a file, on one line; empty when it has no words for it. Decides nothing.
std::string magicWords(ByteView head);

}  // namespace tarn
