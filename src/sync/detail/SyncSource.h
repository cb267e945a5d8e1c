#pragma once

#include "mp4/MP4BoxUtils.h"
#include "platform/FileManager.h"
#include "platform/ReadWatch.h"

namespace tarn {

/// A movie that is open for reading its timing facts. Its readers take a box that they cannot read as not there; the
/// watch tells the one from the other.
class SyncSource {
 public:
  /// Throws AVSyncError: fileNotFound, ioError for a file that cannot be opened, corruptedMP4 for one without a `moov`.
  SyncSource(FileManager& files, const Path& fileURL);

  FileHandle& file() { return watch_; }
  const BoxHeader& moov() const { return moov_; }
  /// Throws AVSyncError: ioError if a read has failed since the file was opened.
  void requireReadable() const;

 private:
  ReadWatch watch_;
  BoxHeader moov_;
};

}  // namespace tarn
