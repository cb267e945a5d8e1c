#pragma once

#include <cstdint>
#include <memory>

#include "platform/Bytes.h"

namespace tarn {

/// Decodes the samples of a track one after the other, for no other purpose than to learn whether the decoder takes
/// them without a complaint. Serves one thread; the decoder may use others.
class DecodeCheck {
 public:
  enum class Codec { avc, hevc, aac };

  /// `configuration`: the contents of the `avcC` or `hvcC`, or an AudioSpecificConfig. Throws Error if there is no such
  /// decoder, or it does not take the configuration.
  DecodeCheck(Codec codec, ByteView configuration);
  ~DecodeCheck();
  DecodeCheck(const DecodeCheck&) = delete;
  DecodeCheck& operator=(const DecodeCheck&) = delete;

  /// Takes the next sample, which is shown at this time, in any unit; no other one is shown then. Returns false once
  /// the decoder has complained; it is not asked again then. It is a complaint too if pictures of HEVC, whose parameter
  /// sets say how far they are out of order, come out in another order than they are shown.
  bool take(ByteView sample, int64_t shownAt);
  /// Ends the stream: the last samples may be judged only now. Returns what `take` returns.
  bool finish();

  /// How many samples, from the first on, are known to be good: after a complaint, those before the first one that
  /// had not come out until then, and never the one that was taken last; without one, all that were taken.
  uint64_t goodSamples() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace tarn
