#pragma once

#include <optional>
#include <string>
#include <vector>

#include "inspect/Inspection.h"

namespace tarn {

/// How the sound is, line by line, in plain words. The forecast must have findings.
std::vector<std::string> soundLines(const AudioForecast& forecast);

/// How sound and picture lie to each other where they begin and end, as a sentence; nothing when the file does not
/// tell.
std::optional<std::string> soundAgainstPicture(const RepairSummary::Timeline& timeline);

/// What a repair does to the sound, as the end of "the sound".
std::string audioStepText(const AudioForecast& forecast);

}  // namespace tarn
