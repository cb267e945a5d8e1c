#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "media/AudioConverter.h"
#include "platform/Bytes.h"
#include "platform/Error.h"

namespace tarn {

class SilentFrameError : public Error {
 public:
  enum class Case { converterCreationFailed, encodingFailed, unsupportedSampleRate, noOutputProduced };

  static SilentFrameError converterCreationFailed(OSStatus status);
  static SilentFrameError encodingFailed(OSStatus status);
  static SilentFrameError unsupportedSampleRate(int64_t rate);
  static SilentFrameError noOutputProduced();

  Case kind() const { return kind_; }

 private:
  SilentFrameError(Case kind, std::string description);
  Case kind_;
};

/// Silent AAC-LC packets: raw, without an ADTS header, stereo, 1024 PCM frames of zeros. Each is encoded once in the
/// life of the process. Thread-safe.
class SilentAACSampleCache {
 public:
  static SilentAACSampleCache& shared();

  /// The packet for a rate in Hz, one of AudioConfigCheck::supportedSampleRates. Throws SilentFrameError.
  Bytes getSilentFrame(int64_t sampleRate);

 private:
  std::mutex lock_;  // held while a packet is encoded, so that nobody encodes it twice
  std::map<int64_t, Bytes> cachedFrames_;
};

}  // namespace tarn
