#pragma once

#include <string>
#include <vector>

#include "inspect/Inspection.h"

namespace tarn {

/// What people call the codec: "AC-3". The forecast must have findings, as below.
std::string codecName(const AudioForecast& forecast);

/// What is wrong with the sound, line by line, in plain words.
std::vector<std::string> soundLines(const AudioForecast& forecast);

/// What the audio step does, as the end of a sentence.
std::string audioStepText(const AudioForecast& forecast);

/// What that means for the sound; may be empty.
std::vector<std::string> audioConsequences(const AudioForecast& forecast);

}  // namespace tarn
