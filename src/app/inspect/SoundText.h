#pragma once

#include <string>
#include <vector>

#include "app/inspect/Inspection.h"

namespace tarn {

/// What is wrong with the sound, line by line, in plain words. The forecast must have findings.
std::vector<std::string> soundLines(const AudioForecast& forecast);

/// What the audio step does, as the end of a sentence.
std::string audioStepText(const AudioForecast& forecast);

/// What that means for the sound; may be empty.
std::vector<std::string> audioConsequences(const AudioForecast& forecast);

}  // namespace tarn
