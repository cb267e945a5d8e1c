#pragma once

#include <cstdint>
#include <memory>

#include "media/AVAsset.h"
#include "media/CMSampleBuffer.h"

namespace tarn {

/// How a track's audio is to come out: 16-bit signed PCM, interleaved, host byte order.
struct PCMOutputSettings {
  double sampleRate = 48000;  ///< Hz
  uint32_t channels = 2;      ///< 1 or 2
  /// True: PCM stays on the presentation timeline. Where a frame should start more than 10 ms away from the end of what
  /// has been given out, silence fills the hole (with a fade of 5 ms before and after it, so that it does not click) or
  /// the overlap is cut; a lesser difference above 0.5 ms is made up for by resampling within 0.5 %. A track without
  /// holes comes out as a plain decode. False: packets only, back to back.
  bool keepsTimeline = true;
};

/// True for a format that can be decoded: AAC, and what else libavcodec knows by this sample entry.
bool canDecode(const CMFormatDescription& description);

/// Decodes a track: buffers of 8192 frames, fewer where the timeline breaks and at the end. The start and the end of an
/// edit are exact: packets ahead of it are decoded and dropped. A packet that does not decode leaves its length as a
/// hole. Memory stays flat however long a hole is. Owns the samples.
std::unique_ptr<SampleBufferSource> makePCMSource(std::unique_ptr<CompressedSampleSource> samples,
                                                  const AVAssetTrack& track, const PCMOutputSettings& settings);

}  // namespace tarn
