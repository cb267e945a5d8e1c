#pragma once

#include <cstdint>
#include <optional>

#include "audio/transcode/FrameCounts.h"
#include "media/AVAudioPCMBuffer.h"
#include "media/CMFormatDescription.h"
#include "media/CMSampleBuffer.h"
#include "media/CMTime.h"

namespace tarn {

/// Makers of PCM sample buffers and of PCM buffers, 16-bit signed, interleaved, in host byte order, at rates in Hz. A
/// maker that cannot make gives nothing and says why in the log.

/// Null if there is no such format.
CMFormatDescriptionPointer createPCMFormatDescription(double sampleRate, int channels);

/// This many frames of digital zero.
std::optional<CMSampleBuffer> makeSilenceSampleBuffer(int64_t frames, const CMTime& pts,
                                                      const CMFormatDescriptionPointer& formatDesc, int channels,
                                                      double sampleRate);

/// How a silence leads from the audio before it to the audio after it.
struct SilenceShape {
  int64_t rampFrames = 0;  ///< of the way down to silence and of the way up; each at most half of the frames
  bool useComfortNoise = false;
  double noiseLevel = 0;        ///< amplitude of the noise, relative to full scale
  int16_t lastSampleValue = 0;  ///< where the audio ahead left off; 0 for a head of digital zero
  int16_t nextSampleValue = 0;  ///< where the audio after it goes on; 0 for a tail of digital zero
};

/// Silence of that shape: half a cosine down from the last value, noise with a stream of its own for each channel, half
/// a cosine up towards the next value. Draws from NoiseTable::shared().
std::optional<CMSampleBuffer> makeShapedSilenceBuffer(int64_t frames, const SilenceShape& shape, const CMTime& pts,
                                                      const CMFormatDescriptionPointer& formatDesc, int channels,
                                                      double sampleRate);

/// A copy of the buffer's frames. An empty buffer gives nothing, without a word.
std::optional<CMSampleBuffer> pcmBufferToCMSampleBuffer(const AVAudioPCMBuffer& buffer,
                                                        const CMFormatDescriptionPointer& formatDesc, const CMTime& pts,
                                                        double sampleRate);

/// The frames of a sample buffer that holds PCM of this format, in `reuseBuffer` where that has the room. No frames
/// give nothing, without a word.
std::optional<AVAudioPCMBuffer> toAVAudioPCMBuffer(const CMSampleBuffer& sampleBuffer,
                                                   const AVAudioFormat& targetFormat,
                                                   std::optional<AVAudioPCMBuffer> reuseBuffer = std::nullopt);

}  // namespace tarn
