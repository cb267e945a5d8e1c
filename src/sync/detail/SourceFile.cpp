#include "sync/detail/SourceFile.h"

#include "platform/OpenFile.h"
#include "sync/ErrorTypes.h"

namespace tarn {

std::unique_ptr<FileHandle> openTrackFile(FileManager& files, const Path& path, OpenMode mode,
                                          const char* failureWords) {
  return openFile(files, path, mode, AVSyncError::fileHandleError(failureWords));
}

std::unique_ptr<FileHandle> openSourceFile(FileManager& files, const Path& fileURL) {
  if (!files.fileExists(fileURL)) throw AVSyncError::fileNotFound();
  return openTrackFile(files, fileURL, OpenMode::reading, "Cannot open file");
}

MP4BoxInfo requireMoov(FileHandle& file) {
  auto moov = MP4BoxUtils::findTopLevelBox(file, "moov");
  if (!moov) throw AVSyncError::corruptedMP4("moov box not found");
  return *moov;
}

}  // namespace tarn
