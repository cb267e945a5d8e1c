#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "presentation/Presentation.h"

namespace tarn {

/// What people call the tracks of a handler, to come after "the": "video", "sound", "text", "\"tmcd\" track".
std::string handlerWords(std::string_view handler);

/// What people call a track, to come after "the": "video", "sound", "text", "\"tmcd\" track"; with its number if the
/// movie has several tracks of its handler.
std::string trackWords(const Presentation& movie, std::string_view handler, uint32_t trackID);

/// What is wrong with a track's edit list, as a sentence for people without its stop: that it is damaged, or else that
/// it is missing though the pictures begin late.
std::string editListWords(const Presentation& movie, const TrackPresentation& track);

}  // namespace tarn
