#pragma once

#include <cstdint>

#include "audio/analysis/AudioAnalysis.h"
#include "media/AVAsset.h"

namespace tarn {

AACType detectAACType(const AVAssetTrack& audioTrack);

/// 1024 or 2048 samples. Of a track at or below 24000 Hz it says 2048 where detectAACType may say AAC-LC; each caller
/// keeps to its own answer.
int detectAACFrameSize(const AVAssetTrack& audioTrack);

/// Hz; twice the described rate for any track at or below 24000 Hz.
double detectActualSampleRate(const AVAssetTrack& audioTrack);

/// How many PCM samples a buffer of compressed audio holds, and of which rate in Hz: an AAC packet as many as its
/// configuration says, those of SBR included; any other buffer as many as its duration says.
struct PacketCount {
  int64_t samples = 0;
  double rate = 48000;
  double seconds() const { return static_cast<double>(samples) / rate; }
};
PacketCount countSamples(const CMSampleBuffer& buffer, AACType aacType);

/// The channels of the first description that names any; 2 if none does.
int64_t getSourceChannelCount(FileManager& files, const Path& fileURL);

}  // namespace tarn
