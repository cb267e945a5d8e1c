#pragma once

#include <array>

#include "platform/Bytes.h"

namespace tarn {

/// The SHA-256 of the bytes (FIPS 180-4). Thread-safe.
std::array<uint8_t, 32> sha256(ByteView bytes);

}  // namespace tarn
