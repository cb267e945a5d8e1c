#pragma once

#include <cstdint>

#include "mp4/BitReader.h"
#include "platform/Bytes.h"

namespace tarn {

/// A NAL unit without its emulation prevention bytes (ITU-T H.264 and H.265 7.3.1.1): each 00 00 03 that a byte below 4
/// follows loses its 03. A 00 00 03 at the very end stays.
Bytes removeEmulationPrevention(ByteView nalUnit);

/// ue(v) (ITU-T H.264 and H.265 9.1, 9.2); 0 for 32 leading zero bits. At the end of the bytes the missing suffix
/// counts as 0.
uint32_t readUE(BitReader& bits);

/// Steps over bits, at most to the end of the bytes.
void skipBits(BitReader& bits, uint64_t count);

/// True for the payload of an access unit delimiter (ITU-T H.264 7.3.2.4, ITU-T H.265 7.3.2.5), header left out.
bool isDelimiter(ByteView payload);

/// True for the payload of an SEI unit, header left out: at least one message, and the messages fill it (ITU-T H.264
/// 7.3.2.3, ITU-T H.265 7.3.2.4). Of one that is not all there, the last message may reach over the end.
bool isSEI(ByteView payload, bool isWhole);

}  // namespace tarn
