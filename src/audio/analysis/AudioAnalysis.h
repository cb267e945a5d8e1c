#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "media/CMTime.h"

namespace tarn {

enum class AACType { aacLC, heAACv1, heAACv2 };

/// "AAC-LC", "HE-AAC-v1", "HE-AAC-v2".
std::string_view text(AACType type);

/// PCM samples that one packet holds: 1024, or 2048 for both HE types.
int samplesPerPacket(AACType type);

enum class GapType {
  clean,              ///< no gap inside, no drift, no offset worth mentioning
  initialOffsetOnly,  ///< the audio starts at another time than the video, and is whole
  internalGaps,       ///< at least one gap in its presentation times
  timelineDrift,      ///< no gap, but the container's length and that of the samples differ by more than 100 ms
};

/// The case's name.
std::string_view text(GapType type);

/// A forward jump of the presentation time.
struct AudioGap {
  CMTime position;  ///< where the audio before it ends
  CMTime duration;
  int64_t frameIndex = 0;    ///< of the compressed buffer after it, 0-based
  int64_t sampleOffset = 0;  ///< PCM samples before that buffer, at the source's actual rate
};

/// A backward jump of the presentation time.
struct AudioOverlap {
  CMTime position;
  int64_t framesToDrop = 0;  ///< PCM frames
  int64_t frameIndex = 0;    ///< as in AudioGap
  int64_t sampleOffset = 0;
};

struct InternalGapResult {
  int64_t gapCount = 0;
  int64_t overlapCount = 0;
  double maxGapMs = 0;
  double maxOverlapMs = 0;
  double totalGapMs = 0;
  double totalOverlapMs = 0;
  double sampleBasedDriftMs = 0;  ///< by how much the track's length and that of its samples differ
  std::vector<AudioGap> gaps;
  std::vector<AudioOverlap> overlaps;

  /// Fills in the counts and lengths from the lists. `rate` is that of the overlaps' frames, in Hz.
  void summarize(double rate);
};

/// A longer drift than this counts, in milliseconds.
inline constexpr double harmlessDriftMs = 100.0;

struct AudioAnalysisResult {
  bool needsTranscoding = false;
  GapType gapType = GapType::clean;
  int64_t gapCount = 0;  ///< gaps, plus 1 when the initial offset exceeds the gap threshold
  int64_t overlapCount = 0;
  double maxGapMs = 0;  ///< the larger of the largest gap and the absolute initial offset
  double maxOverlapMs = 0;
  double totalGapMs = 0;  ///< gaps plus the absolute initial offset
  double totalOverlapMs = 0;
  double timelineDriftMs = 0;
  double durationSeconds = 0;  ///< of the asset
  double initialOffsetMs = 0;  ///< first audio time minus first video time: positive when the audio starts late
  int64_t internalGapCount = 0;
  double maxInternalGapMs = 0;
  double totalInternalGapMs = 0;
  AACType aacType = AACType::aacLC;
  double frameDurationMs = 0;  ///< of a packet at a nominal 48000 Hz, whatever the real rate
  std::vector<AudioGap> internalGaps;
  std::vector<AudioOverlap> internalOverlaps;

  /// Gaps, overlaps and an offset count from above three packets.
  double gapThresholdMs() const { return 3 * frameDurationMs; }

  bool startsApart() const;

  /// The drift in milliseconds for each minute of the asset, which counts as one second long at least.
  double driftRate() const;

  /// One line for the log.
  std::string summary() const;
};

/// Whether the compressed samples could be used as they are.
struct AudioConfigCheck {
  static constexpr std::array<int64_t, 3> supportedSampleRates = {24000, 44100, 48000};
  static constexpr int64_t targetChannelCount = 2;

  bool isStable = false;  ///< exactly one sample description
  int64_t sampleRate = 0;
  int64_t channelCount = 0;
  int64_t aacObjectType = 0;  ///< audioObjectType (ISO/IEC 14496-3 1.5.1.1); 2 without an AudioSpecificConfig
  bool matchesPassthroughTarget = false;
  std::optional<std::string> reason;  ///< why not
  int32_t audioTimescale = 0;         ///< of the `mdhd`
  int64_t sampleDelta = 0;            ///< of the first `stts` entry, in that timescale
  bool isAAC = false;                 ///< of any kind, in packets of one length

  /// True for AAC that players take as it is, although its packets cannot be used for a new track.
  bool isPlayableAAC() const { return isStable && isAAC; }
};

/// One change to a sequence of compressed samples.
struct AudioAction {
  enum class Kind { insertSilence, dropSamples };

  Kind kind = Kind::insertSilence;
  int64_t insertBeforeSampleIndex = 0;  ///< 0-based index of a compressed sample
  int64_t durationTicks = 0;            ///< track timescale
  std::string reason;

  bool operator==(const AudioAction&) const = default;
};

/// What is to be done with a file's audio.
struct RepairDecision {
  enum class Kind {
    skip,           ///< nothing
    editListOnly,   ///< the samples stay; the initial offset is a matter of the edit list
    fastPath,       ///< the track is built anew from its compressed samples
    fullNormalize,  ///< decode and encode
  };

  /// Milliseconds a minute, from which on a drift is too much for the fast path.
  static constexpr double tooHighDriftRate = 10.0;

  Kind kind = Kind::skip;
  std::string reason;  ///< of fullNormalize alone

  /// "skip", "editListOnly", "fastPath", "fullNormalize(<reason>)".
  std::string description() const;

  bool operator==(const RepairDecision&) const = default;
};

}  // namespace tarn
