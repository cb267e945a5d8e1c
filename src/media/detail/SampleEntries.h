#pragma once

#include <vector>

#include "media/CMFormatDescription.h"
#include "mp4/MP4BoxUtils.h"
#include "platform/Bytes.h"
#include "platform/FileManager.h"

namespace tarn {

/// A description for each sample entry of an `stsd` (ISO/IEC 14496-12 8.5.2), in order; none if it cannot be read or
/// is larger than any real one. Of audio entries the fields are read as well. Moves the file's position; throws
/// PosixError.
std::vector<CMFormatDescriptionPointer> readFormatDescriptions(FileHandle& file, const MP4BoxInfo& stsd, bool isAudio);

}  // namespace tarn
