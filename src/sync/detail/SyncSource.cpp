#include "sync/detail/SyncSource.h"

#include "platform/OpenFile.h"
#include "sync/ErrorTypes.h"

namespace tarn {
namespace {

std::unique_ptr<FileHandle> openSource(FileManager& files, const Path& fileURL) {
  if (!files.fileExists(fileURL)) throw AVSyncError::fileNotFound();
  return openFile(files, fileURL, OpenMode::reading, AVSyncError::fileHandleError("Cannot open file"));
}

}  // namespace

SyncSource::SyncSource(FileManager& files, const Path& fileURL) : watch_(openSource(files, fileURL)) {
  const auto moov = MP4BoxUtils::findTopLevelBox(watch_, "moov");
  requireReadable();
  if (!moov) throw AVSyncError::corruptedMP4("moov box not found");
  moov_ = *moov;
}

void SyncSource::requireReadable() const {
  if (const auto& failure = watch_.failure()) throw AVSyncError::fileHandleError(failure->description());
}

}  // namespace tarn
