#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "platform/Bytes.h"

namespace tarn {

struct AACBandLayout;

/// A packet of AAC-LC, as its own syntax tells where it ends.
struct AACBlock {
  size_t size = 0;  ///< bytes, with the bits that fill up the last one
  Bytes elements;   ///< of the channels, in order: the type of each in the upper 4 bits, its tag in the lower ones
};

/// Reads packets of AAC-LC (raw_data_block, ISO/IEC 14496-3 4.4.2.1) from front to end, down to each code word of the
/// spectrum, so that their length is known without a table of sizes. Spectral band replication passes as the fill
/// element that it is.
class AACBlockReader {
 public:
  /// For a core rate in Hz, and packets of 1024 PCM frames. Throws Error for a rate without bands (4.5.4).
  explicit AACBlockReader(uint32_t sampleRate);

  /// The packet at the front of the bytes. Returns nothing if there is none: they end before it, a value is one that
  /// AAC-LC rules out, or it holds a coupling channel.
  std::optional<AACBlock> read(ByteView bytes) const;

  /// No packet is longer than this, in bytes: 6144 bits for each of 16 channels (4.5.3.1), and what may be beside them.
  static constexpr size_t longestBlock = 16384;

 private:
  const AACBandLayout* bands_;
};

}  // namespace tarn
