#include "remux/detail/OpenFile.h"

#include "platform/OpenFile.h"

namespace tarn {

MP4RemuxError fileHandleError(const std::string& description) {
  return MP4RemuxError::ioError(Error("FileHandle", -1, description));
}

std::unique_ptr<FileHandle> openFile(FileManager& files, const Path& fileURL, OpenMode mode, const char* refusal) {
  if (!files.fileExists(fileURL)) throw MP4RemuxError::fileNotFound();
  return openFile(files, fileURL, mode, fileHandleError(refusal));
}

}  // namespace tarn
