#pragma once

#include <string>
#include <vector>

#include "platform/FileManager.h"

namespace tarn {

/// What the result of a repair would do to the presentation of its source, in words for people; empty if it harms
/// nothing, and where the boxes of the source do not say what it shows: there is nothing to compare then. Throws
/// PosixError.
std::vector<std::string> harmsOfRepair(FileManager& sourceFiles, const Path& source, FileManager& resultFiles,
                                       const Path& result, bool soundWasReplaced);

}  // namespace tarn
