#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "media/CMFormatDescription.h"
#include "platform/Bytes.h"

namespace tarn {

using OSStatus = int32_t;
inline constexpr OSStatus noErr = 0;

/// What an input callback hands over: whole packets of the input format. The bytes must stay valid until the next call
/// or the end of the conversion.
struct AudioConverterInput {
  OSStatus status = noErr;
  uint32_t packets = 0;
  ByteView data = {};
};

/// Converts audio from 16-bit interleaved PCM to AAC-LC packets. Serves one thread.
class AudioConverter {
 public:
  /// Asks for input, at least one packet; 0 packets end the stream.
  class InputSource {
   public:
    virtual ~InputSource() = default;
    virtual AudioConverterInput provide(uint32_t wantedPackets) = 0;
  };

  struct Output {
    OSStatus status = noErr;  ///< also the input's own status, when that ended the conversion
    uint32_t packets = 0;
    Bytes data;
  };

  struct Creation;

  /// There is no converter where `status` tells why not.
  static Creation create(const AudioStreamBasicDescription& from, const AudioStreamBasicDescription& to);
  AudioConverter(AudioConverter&&) noexcept;
  ~AudioConverter();

  /// kAudioConverterEncodeBitRate, in bits per second. Refused once input has been asked for, and for a rate that the
  /// encoder does not take; the rate is then as it was.
  OSStatus setEncodeBitRate(uint32_t bitRate);

  /// Fills up to `packets` output packets in at most `capacity` bytes, asking for input as needed. The encoder's
  /// priming packets are not among them. When the input ends, what is inside comes out first.
  Output fillComplexBuffer(InputSource& input, uint32_t packets, size_t capacity);

 private:
  AudioConverter();
  struct State;
  std::unique_ptr<State> state_;
};

struct AudioConverter::Creation {
  OSStatus status = noErr;
  std::optional<AudioConverter> converter;
};

}  // namespace tarn
