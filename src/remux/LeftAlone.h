#pragma once

#include <optional>
#include <string>

#include "platform/FileManager.h"

namespace tarn {

/// Why the repair leaves the video of a file alone whose record asks for no remux; nothing if the file has a `moov`
/// without a video track.
std::optional<std::string> whyTheVideoIsLeftAlone(FileManager& files, const Path& path);

}  // namespace tarn
