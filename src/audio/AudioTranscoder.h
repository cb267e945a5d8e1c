#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "audio/AudioTranscoderError.h"
#include "audio/analysis/AudioAnalysis.h"
#include "audio/analysis/AudioTimeline.h"
#include "media/AVAsset.h"
#include "pipeline/CancellationToken.h"
#include "platform/FileManager.h"

namespace tarn {

/// Finds out what is wrong with a file's audio, and makes it anew. No state; an operation works on the thread of its
/// caller. Of each kind the first track alone counts. The analysis reads compressed samples and never decodes.
class AudioTranscoder {
 public:
  struct Config {
    double sampleRate = 48000;          ///< of the decoded audio and of the encoder, in Hz
    int channels = 2;                   ///< the source decides: 2 for more than one channel, else 1
    int bitRate = 128000;               ///< bits per second
    double padDropThresholdMs = 2.0;    ///< from where on a gap or an overlap counts where there is no video
    int maxSilenceChunkFrames = 48000;  ///< largest silent buffer, in frames
    double fadeDurationMs = 30.0;       ///< of fades and ramps
    bool enableFadeSmoothing = true;    ///< fade around inserted silence and cuts
    bool useComfortNoise = true;        ///< silence carries low noise instead of zeros
    double comfortNoiseLevel = 0.001;   ///< of full scale
  };

  using ProgressCallback = std::function<void(double progress, const std::string& stage)>;

  // What kind of audio it is, and whether it is whole.

  using GapDetection = std::function<InternalGapResult(const AVAsset& asset, const AVAssetTrack& audioTrack,
                                                       AACType aacType, double gapThresholdMs)>;

  /// Never fails: audio whose gaps cannot be detected needs transcoding.
  static AudioAnalysisResult analyzeAudioForProcessing(FileManager& files, const Path& fileURL);
  static AudioAnalysisResult analyzeAudioForProcessing(const AVAsset& asset,
                                                       const GapDetection& detectGaps = detectInternalGaps);

  static AACType detectAACType(const AVAssetTrack& audioTrack);

  /// 1024 or 2048 samples. Of a track at or below 24000 Hz it says 2048 where detectAACType may say AAC-LC; each caller
  /// keeps to its own answer.
  static int detectAACFrameSize(const AVAssetTrack& audioTrack);

  /// Hz; twice the described rate for any track at or below 24000 Hz.
  static double detectActualSampleRate(const AVAssetTrack& audioTrack);

  /// Of the first description that names any; 2 where none does.
  static int64_t getSourceChannelCount(FileManager& files, const Path& fileURL);

  struct FirstPTS {
    CMTime video = CMTime::zero();
    CMTime audio = CMTime::zero();
  };
  /// Never fails: a track that cannot be read has the start of its time range, a missing one zero.
  static FirstPTS getFirstPTSForTracks(const AVAsset& asset);
  static CMTime getVideoFirstPTS(FileManager& files, const Path& fileURL);

  /// How many PCM samples a buffer of compressed audio holds, and of which rate in Hz: an AAC packet as many as its
  /// configuration says, those of SBR included; any other buffer as many as its duration says.
  struct PacketCount {
    int64_t samples = 0;
    double rate = 48000;
    double seconds() const { return static_cast<double>(samples) / rate; }
  };
  static PacketCount countSamples(const CMSampleBuffer& buffer, AACType aacType);

  /// On the timeline that the edit list makes. Throws AudioTranscoderError.
  static InternalGapResult detectInternalGaps(const AVAsset& asset, const AVAssetTrack& audioTrack, AACType aacType,
                                              double gapThresholdMs);

  struct AudioTimingInfo {
    int32_t timescale = 48000;
    int64_t sampleDelta = 1024;  ///< of the first `stts` row
  };
  /// From the boxes; the defaults where they cannot be read. Never fails.
  static AudioTimingInfo parseAudioTimingInfo(FileManager& files, const Path& fileURL);

  /// Never fails: what cannot be read does not match, and says why.
  static AudioConfigCheck analyzeAudioConfig(FileManager& files, const Path& fileURL);

  /// What the audio alone asks for: `actions` are the changes that its compressed samples would need.
  static RepairDecision determineRepairDecision(const AudioAnalysisResult& analysisResult,
                                                const AudioConfigCheck& configCheck,
                                                std::span<const AudioAction> actions);

  // The two timelines side by side. Thresholds and tolerances in seconds.

  /// Both throw AudioTranscoderError, and the failure of a file that cannot be opened. A buffer without a duration is
  /// as long as a thirtieth of a second, or as its frames at `sampleRate`, in Hz.
  static VideoTimeline buildVideoTimeline(const AVAsset& asset, const AVAssetTrack& videoTrack,
                                          double gapThresholdSeconds);
  static AudioCoverage buildAudioCoverage(const AVAsset& asset, const AVAssetTrack& audioTrack,
                                          const CMTime& videoRebaseOffset, double sampleRate,
                                          double gapThresholdSeconds);

  /// Sorts the gaps and joins those that lie no further apart than the tolerance.
  static std::vector<TimelineGap> mergeOverlappingGaps(std::vector<TimelineGap> gaps, double toleranceSeconds);

  /// `syncOffsetSeconds` is that of the source, positive when its audio is delayed; 0 when it is not known.
  static std::vector<SilenceAction> detectSilenceActions(const VideoTimeline& videoTimeline,
                                                         const AudioCoverage& audioCoverage, double sampleRate,
                                                         double syncOffsetSeconds, double gapMatchToleranceSeconds);

  /// Never fails: a file that cannot be scanned gives the empty result.
  static QuickCrossTrackResult quickCrossTrackScan(FileManager& files, const Path& fileURL, double syncOffsetSeconds);
  static QuickCrossTrackResult quickCrossTrackScan(const AVAsset& asset, double syncOffsetSeconds);

  /// `aacSamplesPerFrame` is not 0.
  static std::vector<AudioAction> convertToAudioActions(std::span<const SilenceAction> silenceActions,
                                                        int32_t audioTimescale, int aacSamplesPerFrame);

  /// For a file without video. `sampleRate` is the output rate. Throws AudioTranscoderError.
  static GapDetectionResult detectAudioGaps(const AVAsset& asset, const AVAssetTrack& audioTrack, double sampleRate,
                                            double gapThresholdMs);

  // Making it anew.

  /// Decodes the audio of `inputURL`, fills what is missing, and writes it as one whole AAC track to `outputURL`, an
  /// M4A, which is replaced. Sample n of it starts at n / sampleRate seconds. Sync with the video stays with the edit
  /// list. `originalAudioEmptyEditDelay` is the empty edit ahead of the source's audio and
  /// `originalAudioMediaDurationSeconds` the length that its edit list gives, both in seconds. `videoFirstPTS` is not
  /// used. `cancellationToken` may be null. The callback comes on the calling thread.
  /// With `shownMediaEnd`, in seconds of the media, the output is the media itself, from media time 0 to there (and the
  /// length of a fade beyond) or to the end of the media, whichever comes first, for a new track that gets the edit
  /// list of the old one: a gap is silence in place, of an overlap the later packet stays. The edit list of `inputURL`
  /// and the pictures are then not looked at, and the three values of the source's timing are only logged. Throws
  /// AudioTranscoderError, and CancellationError, after which there is no output.
  static void transcodeAudio(FileManager& files, const Path& inputURL, const Path& outputURL,
                             const std::optional<CMTime>& videoFirstPTS, double originalAudioEmptyEditDelay,
                             const std::optional<double>& originalAudioMediaDurationSeconds, double syncOffsetSeconds,
                             const Config& config, const CancellationToken* cancellationToken,
                             const ProgressCallback& progressCallback, const std::optional<double>& shownMediaEnd = {});
};

}  // namespace tarn
