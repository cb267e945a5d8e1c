#pragma once

#include "platform/Bytes.h"
#include "poster/KeyPictures.h"

namespace tarn {

/// Decodes the first of the pictures that the decoder takes without a complaint, or else the first that it takes at
/// all, makes it small enough that no edge is longer than `longestEdge` pixels, turns it as players do, and encodes it
/// as a JPEG. Throws Error if there is none.
Bytes jpegOf(const KeyPictures& pictures, int longestEdge);

}  // namespace tarn
