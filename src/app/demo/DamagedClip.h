#pragma once

#include "platform/FileManager.h"

namespace tarn {

/// Seconds of the clip, and of the flash after its hole.
inline constexpr int clipSeconds = 20;
inline constexpr int clipHoleSecond = 8;

/// Makes a recording with ffmpeg in which a white picture and a beep come together each second, and damages it: its
/// parameter sets stand in the samples alone, and its sound has a hole. Throws Error.
void makeDamagedClip(FileManager& files, const Path& clip);

}  // namespace tarn
