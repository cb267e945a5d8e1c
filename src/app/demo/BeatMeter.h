#pragma once

#include <optional>
#include <vector>

#include "platform/FileManager.h"

namespace tarn {

/// A flash, and how much later its beep is heard, both in seconds.
struct Beat {
  double flash = 0;
  std::optional<double> beepAfter;  ///< nothing where there is none within half a second
};

/// How a player deals with the times of the sound.
enum class Listening {
  byTimestamps,   ///< each packet when its time has come
  packetsInARow,  ///< one behind the other from the first one on, as many do
};

/// Times of a clip's white pictures, in seconds. `scratch` is a directory for files on the way. Throws Error, also for
/// a clip whose pictures ffmpeg cannot decode.
std::vector<double> flashTimes(FileManager& files, const Path& clip, const Path& scratch);

/// The beeps of a clip beside these flashes, as ffmpeg's decoder plays its sound. Throws Error.
std::vector<Beat> measureBeats(FileManager& files, const Path& clip, const std::vector<double>& flashes,
                               Listening listening, const Path& scratch);

}  // namespace tarn
