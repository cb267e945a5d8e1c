#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include "media/AVAssetWriter.h"
#include "platform/Bytes.h"

namespace tarn {

/// PCM frames in an AAC packet.
inline constexpr int framesPerAACPacket = 1024;

/// Encodes one stream of AAC-LC. Packet 0 is the encoder's priming; packet n > 0 holds the frames from
/// (n - 1) * 1024 on. The same input gives the same bytes. Serves one thread.
class AACEncoder {
 public:
  /// Throws Error (domain "AACEncoder") for settings that the encoder does not take, as do the operations when it
  /// fails.
  explicit AACEncoder(const AACOutputSettings& settings);
  ~AACEncoder();

  /// At most 1024 frames of interleaved PCM; the rest of the packet is silence. Each call is one packet.
  void send(std::span<const int16_t> samples);

  /// No more comes; the last packets come out.
  void finish();

  /// The next packet, once the encoder has it.
  std::optional<Bytes> receive();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace tarn
