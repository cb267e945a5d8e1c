#pragma once

#include <string>
#include <vector>

#include "platform/FileManager.h"

namespace tarn {

/// What Presentation::metadata() tells of a file. Moves the file's position.
std::vector<std::string> metadataPaths(FileHandle& file);

}  // namespace tarn
