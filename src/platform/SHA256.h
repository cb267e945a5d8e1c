#pragma once

#include <array>

#include "platform/Bytes.h"

namespace tarn {

/// The SHA-256 of the bytes (FIPS 180-4). Thread-safe.
std::array<uint8_t, 32> sha256(ByteView bytes);

/// The HMAC of the text under the key, with SHA-256 (RFC 2104). Thread-safe.
std::array<uint8_t, 32> hmacSHA256(ByteView key, ByteView text);

}  // namespace tarn
