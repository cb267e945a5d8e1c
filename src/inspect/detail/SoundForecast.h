#pragma once

#include "inspect/Inspection.h"

namespace tarn {

/// What the audio step does to the file as the remux step leaves it. Changes nothing and touches no sample data; tells
/// in the inspection's problems what is wrong with the sound.
AudioForecast forecastAudioStep(FileManager& files, const Path& path, bool needsAudioTranscode,
                                std::vector<std::string>& problems);

/// What the step warns of when it does what the forecast says.
std::vector<std::string> soundWarnings(const AudioForecast& forecast);

}  // namespace tarn
