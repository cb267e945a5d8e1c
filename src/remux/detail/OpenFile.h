#pragma once

#include <memory>
#include <string>

#include "mp4/MP4RemuxError.h"
#include "platform/FileManager.h"

namespace tarn {

/// An ioError of the domain "FileHandle".
MP4RemuxError fileHandleError(const std::string& description);

/// Opens a file that must exist. Throws fileNotFound, and fileHandleError(refusal) when it cannot be opened.
std::unique_ptr<FileHandle> openFile(FileManager& files, const Path& fileURL, OpenMode mode, const char* refusal);

}  // namespace tarn
