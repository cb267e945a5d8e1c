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
  /// True: PCM stays on the presentation timeline. Where a frame should start more than 4 ms (or two ticks of the
  /// track, if that is more) away from the end of what has been given out, silence fills the gap, or what was given out
  /// is cut back to there, as of an overlap the later packet stays (with a fade of 5 ms before and after it, so that it
  /// does not click), unless it is less than 10 ms and gone with the next packet. A lesser difference above 0.5 ms, or
  /// above a tick of the track if that is more, is followed by resampling within 2.5 %. The end is that of the last
  /// packet. A track without gaps comes out as a plain decode. False: packets only, back to back; times jump where the
  /// timeline breaks by more than 4 ms.
  bool keepsTimeline = true;
};

/// True for a format that can be decoded: AAC, and what else libavcodec knows by this sample entry.
bool canDecode(const CMFormatDescription& description);

/// How many channels come out of a track's first packets; 0 if none of the first 32 can be read and decoded.
int decodedChannels(CompressedSampleSource& samples);

/// Decodes a track: buffers of 8192 frames, fewer where the timeline breaks and at the end. It begins with the first
/// packet, wherever on the timeline that is, but at time 0 for a track that does not follow its edit list. Times are
/// at the timescale of the output rate. The start and the end of an edit are exact: packets before it are decoded and
/// dropped. A packet that does not decode leaves its length as a gap, which silence fills with either setting. Memory
/// stays flat however long a gap is. Owns the samples. Throws Error for settings that it does not take and for a track
/// without a format that can be decoded; the source throws where packets cannot be read and at a gap of more than a
/// day, when all that came before has been given out.
std::unique_ptr<SampleBufferSource> makePCMSource(std::unique_ptr<CompressedSampleSource> samples,
                                                  const AVAssetTrack& track, const PCMOutputSettings& settings);

}  // namespace tarn
