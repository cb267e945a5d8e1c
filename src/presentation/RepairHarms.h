#pragma once

#include <string>
#include <vector>

#include "platform/FileManager.h"
#include "presentation/PresentationChange.h"

namespace tarn {

/// What a repair as a whole may change of a file: where it replaced the sound, how that came to be, with packets that
/// lie up to one packet off their place. Each step has proved more of its own result, the bytes of the samples too.
AnnouncedChange announcedByRepair(const Presentation& source, bool soundWasReplaced);

/// What the result of a repair would do to the presentation of its source, in words for people; empty where it harms
/// nothing, and where the source's presentation cannot be read: there is nothing to compare then.
std::vector<std::string> harmsOfRepair(FileManager& sourceFiles, const Path& source, FileManager& resultFiles,
                                       const Path& result, bool soundWasReplaced);

}  // namespace tarn
