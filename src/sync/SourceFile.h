#pragma once

#include <memory>

#include "mp4/MP4BoxUtils.h"
#include "platform/FileManager.h"

namespace tarn {

/// Opens a file that must exist. Throws AVSyncError::fileNotFound, or an ioError with these words.
std::unique_ptr<FileHandle> openSourceFile(FileManager& files, const Path& fileURL);
std::unique_ptr<FileHandle> openTrackFile(FileManager& files, const Path& path, OpenMode mode,
                                          const char* failureWords);

/// The file's `moov`. Throws AVSyncError::corruptedMP4 when there is none.
MP4BoxInfo requireMoov(FileHandle& file);

}  // namespace tarn
