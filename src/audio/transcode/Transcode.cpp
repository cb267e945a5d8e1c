#include "audio/transcode/Transcode.h"

#include <cmath>
#include <memory>
#include <optional>

#include "audio/AudioTranscoderError.h"
#include "audio/CMSampleBufferHelpers.h"
#include "audio/analysis/AudioFormatFacts.h"
#include "audio/transcode/TranscodeLoop.h"
#include "audio/transcode/TranscodeOutput.h"
#include "audio/transcode/TranscodePlan.h"
#include "media/AVAssetReader.h"
#include "media/PCMDecoding.h"
#include "platform/Log.h"

namespace tarn {
namespace {

constexpr double emptyEditWorthTelling = 0.01;
constexpr double syncOffsetWorthTelling = 0.001;
constexpr double lengthsMatch = 0.5;  // seconds, of audio and video
constexpr double lengthsDiffer = 2.0;

/// The decoder's end of the second pass.
struct DecodedTrack {
  std::unique_ptr<AVAssetReader> reader;
  std::shared_ptr<AVAssetReaderTrackOutput> output;
};

DecodedTrack makeReader(const AVAsset& asset, const AVAssetTrack& audioTrack, const PCMOutputSettings& settings) {
  DecodedTrack track;
  try {
    track.reader = std::make_unique<AVAssetReader>(asset);
  } catch (const Error& error) {
    throw AudioTranscoderError::assetReadFailed(error.description());
  }
  track.output = std::make_shared<AVAssetReaderTrackOutput>(audioTrack, settings);
  if (!track.reader->canAddOutput(*track.output)) {
    throw AudioTranscoderError::assetReadFailed("Cannot add audio output to reader");
  }
  track.reader->addOutput(track.output);
  return track;
}

AVAssetTrack withoutEditList(const AVAsset& asset, const AVAssetTrack& audioTrack) {
  try {
    return asset.withoutEditList(audioTrack);
  } catch (const Error& failure) {
    throw AudioTranscoderError::assetReadFailed(failure.description());
  }
}

/// How many channels come out of the decoder, which may be more or fewer than a sample entry says.
std::optional<int64_t> channelsOf(const AVAsset& asset, const AVAssetTrack& audioTrack) {
  try {
    const int channels = decodedChannels(*asset.compressedSamples(audioTrack));
    return channels > 0 ? std::optional<int64_t>(channels) : std::nullopt;
  } catch (const Error&) {
    return std::nullopt;
  }
}

std::string whyFailed(const AVAssetReader& reader, const char* otherwise) {
  return reader.error() ? reader.error()->description() : otherwise;
}

void throwIfCancelled(const CancellationToken* token) {
  if (token) token->throwIfCancelled();
}

void logStart(const Path& inputURL, const SourceTiming& timing) {
  log("AudioTranscoder: Starting transcoding from {}", inputURL.filename().string());
  if (timing.audioEmptyEditDelay > emptyEditWorthTelling) {
    log("AudioTranscoder: Original file had {:.3f}s audio delay (will be handled via edit list, not sample skipping)",
        timing.audioEmptyEditDelay);
  }
  if (std::abs(timing.syncOffsetSeconds) > syncOffsetWorthTelling) {
    log("AudioTranscoder: Original sync offset: {:.3f}s (positive = audio delayed)", timing.syncOffsetSeconds);
  }
}

void logTotals(const AudioTranscodingState& state) {
  auto seconds = [&](int64_t frames) { return static_cast<double>(frames) / state.config.sampleRate; };
  log("AudioTranscoder: Completed successfully");
  log("  Buffers processed: {}", state.buffersProcessed);
  log("  Samples output: {}", state.samplesProcessed);
  log("  Output duration: {:.3f}s", seconds(state.samplesProcessed));
  log("  Silence inserted: {} samples ({:.3f}s)", state.silenceInserted, seconds(state.silenceInserted));
  log("  Gaps filled: {}", state.gapsDetected);
  log("  Frames dropped (overlaps): {} ({:.3f}s)", state.framesDropped, seconds(state.framesDropped));
  log("  Overlaps trimmed: {}", state.overlapsDetected);
}

void logSyncValidation(double videoSeconds, double audioSeconds) {
  const double difference = std::abs(videoSeconds - audioSeconds);
  log("AudioTranscoder: A/V Sync Validation:");
  log("  Video duration: {:.3f}s", videoSeconds);
  log("  Audio output:   {:.3f}s", audioSeconds);
  log("  Difference:     {:.3f}s", difference);
  if (difference < lengthsMatch) {
    log("  ✓ SYNC OK: Audio matches video timeline");
  } else if (difference < lengthsDiffer) {
    log("  ⚠ WARNING: Audio differs from video by {:.3f}s", difference);
  } else {
    log("  ✗ ERROR: Significant A/V duration mismatch ({:.3f}s)", difference);
    log("    This may cause playback sync issues on some devices");
  }
}

/// The second pass. Nothing of `output` is left when it throws.
AudioTranscodingState transcode(DecodedTrack& source, TranscodeOutput& output, TranscodePulse& pulse,
                                const TranscodePlan& plan, const TranscodeConfig& config) {
  const AudioNormalizer normalizer(
      {config.sampleRate, config.channels, config.padDropThresholdMs, config.maxSilenceChunkFrames});
  if (!source.reader->startReading()) {
    throw AudioTranscoderError::assetReadFailed(whyFailed(*source.reader, "Unknown read error"));
  }
  output.start();
  if (!normalizer.formatDescription()) {
    throw AudioTranscoderError::transcodingFailed("Failed to create format description");
  }
  TranscodeLoop loop(plan, config, normalizer, output);
  pulse.report(0.0, "Transcoding");
  while (auto decoded = source.output->copyNextSampleBuffer()) {
    pulse.beat();
    if (loop.capReached()) break;
    loop.process(*decoded);
  }
  loop.finish();
  output.finish();
  if (source.reader->status() == AVAssetReaderStatus::failed) {
    throw AudioTranscoderError::assetReadFailed(whyFailed(*source.reader, "Unknown error"));
  }
  return loop.state();
}

}  // namespace

void transcodeAudio(FileManager& files, const Path& inputURL, const Path& outputURL, const SourceTiming& timing,
                    const TranscodeConfig& config, const CancellationToken* cancellationToken,
                    const TranscodeProgress& progressCallback, const std::optional<double>& shownMediaEnd) {
  logStart(inputURL, timing);
  throwIfCancelled(cancellationToken);
  const AVAsset asset(files, inputURL);
  const auto audioTracks = asset.tracks(AVMediaType::audio);
  if (audioTracks.empty()) throw AudioTranscoderError::noAudioTrack();
  const AVAssetTrack audioTrack = shownMediaEnd ? withoutEditList(asset, audioTracks.front()) : audioTracks.front();
  int64_t sourceChannels = getSourceChannelCount(files, inputURL);
  if (shownMediaEnd) sourceChannels = channelsOf(asset, audioTrack).value_or(sourceChannels);
  TranscodeConfig output = config;
  output.channels = sourceChannels > 1 ? 2 : 1;
  log("AudioTranscoder: Source has {} channels, outputting {}", sourceChannels, output.channels);

  TranscodePlan plan = shownMediaEnd ? planWholeMedia(audioTrack, *shownMediaEnd, output)
                                     : analyzeTimelines(asset, audioTrack, timing, output);
  throwIfCancelled(cancellationToken);
  plan.expectedSamples = expectedOutputSamples(plan, output.sampleRate);

  auto source = makeReader(asset, audioTrack,
                           {.sampleRate = output.sampleRate,
                            .channels = static_cast<uint32_t>(output.channels),
                            .keepsTimeline = plan.keepsTimeline});
  TranscodePulse pulse(cancellationToken, progressCallback, plan.expectedSamples);
  TranscodeOutput m4a(files, outputURL, {frameTimescale(output.sampleRate), output.channels, output.bitRate},
                      output.workers, pulse);
  const AudioTranscodingState state = transcode(source, m4a, pulse, plan, output);
  m4a.keep();

  pulse.report(1.0, "Transcoding complete");
  logTotals(state);
  if (plan.videoSeconds) {
    logSyncValidation(*plan.videoSeconds, static_cast<double>(state.samplesProcessed) / output.sampleRate);
  }
}

}  // namespace tarn
