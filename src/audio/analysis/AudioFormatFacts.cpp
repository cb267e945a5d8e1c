#include "audio/analysis/AudioFormatFacts.h"

#include <cmath>

#include "media/AudioSpecificConfig.h"
#include "platform/Log.h"

namespace tarn {
namespace {

constexpr double highestCoreRate = 24000.0;

/// 0 without an AudioSpecificConfig.
int objectType(const CMFormatDescription& description) {
  return announcedObjectType(CMAudioFormatDescriptionGetMagicCookie(description)).value_or(0);
}

bool hasLowRate(const CMFormatDescription& description) {
  const auto* stream = CMAudioFormatDescriptionGetStreamBasicDescription(description);
  return stream && stream->mSampleRate <= highestCoreRate;
}

}  // namespace

AACType detectAACType(const AVAssetTrack& audioTrack) {
  for (const auto& description : audioTrack.formatDescriptions) {
    switch (objectType(*description)) {
      case objectTypeLC:
        return AACType::aacLC;
      case objectTypePS:
        return AACType::heAACv2;
      case objectTypeSBR:
        return AACType::heAACv1;
      default:
        if (hasLowRate(*description)) return AACType::heAACv1;
    }
  }
  return AACType::aacLC;
}

int detectAACFrameSize(const AVAssetTrack& audioTrack) {
  for (const auto& description : audioTrack.formatDescriptions) {
    const int type = objectType(*description);
    if (type == objectTypePS || type == objectTypeSBR) {
      log("AudioTranscoder: Detected HE-AAC (AOT={}), using 2048 samples/frame", type);
      return 2048;
    }
    if (hasLowRate(*description)) {
      log("AudioTranscoder: Low core sample rate ({:.0f} Hz) suggests HE-AAC, using 2048 samples/frame",
          description->streamDescription->mSampleRate);
      return 2048;
    }
  }
  logLine("AudioTranscoder: Assuming AAC-LC, using 1024 samples/frame");
  return 1024;
}

double detectActualSampleRate(const AVAssetTrack& audioTrack) {
  for (const auto& description : audioTrack.formatDescriptions) {
    const auto* stream = CMAudioFormatDescriptionGetStreamBasicDescription(*description);
    if (!stream) continue;
    const double rate = stream->mSampleRate;
    if (rate > highestCoreRate) {
      log("AudioTranscoder: AAC-LC detected, sample rate: {:.0f} Hz", rate);
      return rate;
    }
    log("AudioTranscoder: HE-AAC detected, core rate: {:.0f} Hz, output rate: {:.0f} Hz", rate, rate * 2);
    return rate * 2;
  }
  logLine("AudioTranscoder: Could not determine sample rate from format description, using default 48000 Hz");
  return 48000.0;
}

PacketCount countSamples(const CMSampleBuffer& buffer, AACType aacType) {
  const auto* stream =
      buffer.formatDescription ? CMAudioFormatDescriptionGetStreamBasicDescription(*buffer.formatDescription) : nullptr;
  if (stream == nullptr) return {samplesPerPacket(aacType) * buffer.numSamples};
  if (!isPacketizedAAC(*stream)) {
    return {std::llround(buffer.duration.seconds() * stream->mSampleRate), stream->mSampleRate};
  }
  const int64_t core = int64_t{stream->mFramesPerPacket} * buffer.numSamples;
  if (aacType == AACType::aacLC) return {core, stream->mSampleRate};
  return {2 * core, 2 * stream->mSampleRate};
}

int64_t getSourceChannelCount(FileManager& files, const Path& fileURL) {
  const auto tracks = AVAsset(files, fileURL).tracks(AVMediaType::audio);
  if (tracks.empty()) return 2;
  for (const auto& description : tracks.front().formatDescriptions) {
    const auto* stream = CMAudioFormatDescriptionGetStreamBasicDescription(*description);
    if (stream && stream->mChannelsPerFrame != 0) return stream->mChannelsPerFrame;
  }
  return 2;
}

}  // namespace tarn
