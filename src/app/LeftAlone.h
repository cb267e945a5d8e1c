#pragma once

#include <string>

#include "platform/FileManager.h"

namespace tarn {

/// Why the repair leaves the video of a file alone whose record asks for no remux.
std::string whyTheVideoIsLeftAlone(FileManager& files, const Path& path);

}  // namespace tarn
