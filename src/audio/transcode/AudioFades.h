#pragma once

#include <cstdint>

#include "media/AVAudioPCMBuffer.h"

namespace tarn {

/// Half a cosine from 0 up over the first frames of a buffer, at most `fadeLengthFrames` of them; the first becomes 0.
/// Less than 2 frames stay as they are.
void applyFadeIn(AVAudioPCMBuffer& buffer, int64_t fadeLengthFrames);

/// Likewise down to 0 over the last frames; the last becomes 0.
void applyFadeOut(AVAudioPCMBuffer& buffer, int64_t fadeLengthFrames);

/// Removes frames from the head and moves the rest to the front. Less than 1 does nothing; as many as there are, or
/// more, leave the buffer empty.
void dropFramesFromHead(AVAudioPCMBuffer& buffer, int64_t frames);

}  // namespace tarn
