#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "audio/analysis/AudioAnalysis.h"
#include "mp4/MP4BoxUtils.h"
#include "platform/Bytes.h"
#include "platform/Error.h"
#include "platform/FileManager.h"

namespace tarn {

class FastPathError : public Error {
 public:
  enum class Case {
    cannotParseBox,
    sampleReadFailed,
    validationFailed,
    noAudioTrack,
    cannotReadFile,
    silentFrameGenerationFailed,
  };

  static FastPathError cannotParseBox(const std::string& type);
  static FastPathError sampleReadFailed(int64_t index, const std::string& message);
  static FastPathError validationFailed(const std::string& message);
  static FastPathError noAudioTrack();
  static FastPathError cannotReadFile();
  static FastPathError silentFrameGenerationFailed();

  Case kind() const { return kind_; }

 private:
  FastPathError(Case kind, std::string description);
  Case kind_;
};

/// Makes a new audio stream out of a file's AAC packets without decoding them: all of them, back to back, each with the
/// same length, and whole silent packets between them. The source is only read. Serves one thread.
class FastPathAudioBuilder {
 public:
  struct BuildResult {
    Bytes audioData;                    ///< all packets, back to back
    std::vector<uint32_t> sampleSizes;  ///< bytes of each packet
    int64_t sampleCount = 0;
    int64_t durationTicks = 0;  ///< sampleCount x sampleDelta
    int64_t silentSamplesInserted = 0;
    int32_t timescale = 0;    ///< ticks per second
    int64_t sampleDelta = 0;  ///< ticks of each packet
    int64_t sampleRate = 0;   ///< Hz
  };

  /// The actions, ready for one walk over the samples.
  struct ActionMap {
    std::map<int64_t, AudioAction> insertions;  ///< by the 0-based index of the sample that they go before
    std::optional<AudioAction> trailing;        ///< all that go after the last sample
    int64_t silentSampleCount = 0;              ///< forecast
  };

  /// Whole boxes.
  struct SampleTableBoxes {
    Bytes stsz, stts, stsc, stco;
  };

  FastPathAudioBuilder(FileManager& files, Path sourceURL, AudioConfigCheck configCheck)
      : files_(files), sourceURL_(std::move(sourceURL)), configCheck_(std::move(configCheck)) {}

  /// Reads the packets of the first audio track. An action that is not whole packets long leaves its rest to the next
  /// one; what is left at the end is dropped, and so are dropSamples actions. Throws FastPathError, also where packets
  /// of the one length would drift by more than 10 ms a minute from the 1024 PCM samples that they hold, or where more
  /// than about six hours of silence are asked for; Errors of the domain "SampleTable" and ByteArrayError.
  BuildResult build(std::span<const AudioAction> actions) const;

  /// Throws FastPathError::validationFailed where build would for the one length of the packets.
  static void requireTrueSampleDelta(const AudioConfigCheck& config);

  /// Throws FastPathError::validationFailed for a result that is not whole.
  static void validate(const BuildResult& result);

  /// Sums up actions at one place. Throws FastPathError::validationFailed if a sum does not fit 64 bits.
  static ActionMap prepareActionMap(std::span<const AudioAction> actions, int64_t originalSampleCount,
                                    int64_t sampleDelta);

  /// The tables for a file in which each packet is a chunk, and an `mdat` with an 8-byte header at `mdatOffset` holds
  /// nothing but the packets. Throws FastPathError::validationFailed if a field cannot hold its value.
  static SampleTableBoxes buildSampleTableBoxes(const BuildResult& result, uint64_t mdatOffset);

 private:
  Bytes silentFrame() const;

  FileManager& files_;
  Path sourceURL_;
  AudioConfigCheck configCheck_;
};

}  // namespace tarn
