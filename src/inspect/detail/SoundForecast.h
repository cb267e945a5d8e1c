#pragma once

#include "inspect/Inspection.h"

namespace tarn {

/// What the audio step does to the file as the remux step leaves it. Changes nothing and touches no sample data.
AudioForecast forecastAudioStep(FileManager& files, const Path& path, bool needsAudioTranscode);

/// How a step that replaces the sound mends it, as a sentence without its stop.
std::string doneToSound(const AudioForecast& forecast);

/// What the step warns of when it does what the forecast says.
std::vector<std::string> soundWarnings(const AudioForecast& forecast);

}  // namespace tarn
