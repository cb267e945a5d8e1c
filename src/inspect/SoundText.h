#pragma once

#include <string>
#include <vector>

#include "inspect/Inspection.h"

namespace tarn {

/// How the sound is, line by line, in plain words. The forecast must have findings.
std::vector<std::string> soundLines(const AudioForecast& forecast);

/// What a repair does to the sound, as the end of "the sound".
std::string audioStepText(const AudioForecast& forecast);

}  // namespace tarn
