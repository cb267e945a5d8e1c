#pragma once

#include <memory>

#include "mp4/MP4BoxUtils.h"
#include "platform/FileManager.h"

namespace tarn {

/// Opens a file for reading. Throws AVSyncError::fileNotFound when there is none, and an ioError when it cannot be
/// opened.
std::unique_ptr<FileHandle> openSourceFile(FileManager& files, const Path& fileURL);

/// Opens a file. Throws an AVSyncError::ioError with these words when it cannot be opened.
std::unique_ptr<FileHandle> openTrackFile(FileManager& files, const Path& path, OpenMode mode,
                                          const char* failureWords);

/// The file's `moov`, whatever the position, which is moved. Throws AVSyncError::corruptedMP4 when there is none.
MP4BoxInfo requireMoov(FileHandle& file);

}  // namespace tarn
