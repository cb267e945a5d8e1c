#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "media/AVAssetWriter.h"
#include "platform/Bytes.h"
#include "platform/FileManager.h"
#include "platform/TempFile.h"

namespace tarn {

/// An M4A in the making: `ftyp`, the media as they come, and at the end the `moov`. Memory grows by four bytes a
/// packet. The file is deleted unless it was kept. Serves one thread at a time.
class M4AFile {
 public:
  /// Makes the file, which must not exist. Throws PosixError.
  M4AFile(FileManager& files, const Path& path);
  M4AFile(const M4AFile&) = delete;
  M4AFile& operator=(const M4AFile&) = delete;

  /// Throws PosixError. Flushes now and then, so that no flush takes long, the last one included.
  void append(const std::vector<Bytes>& packets);

  /// Writes the boxes of a track of this many PCM frames, flushes and closes. Throws PosixError, and Error for a file
  /// that its boxes cannot describe.
  void finish(const AACOutputSettings& settings, int64_t frames);

  void keep() { name_.keep(); }

 private:
  Bytes buildMoov(const AACOutputSettings& settings, int64_t frames) const;

  std::unique_ptr<FileHandle> file_;
  TempFile name_;            // after the handle: only a file that was made here is deleted
  uint64_t mediaStart_ = 0;  // where the first packet stands
  std::vector<uint32_t> packetSizes_;
  std::vector<uint64_t> chunkOffsets_;
  uint64_t position_ = 0;
  uint64_t flushed_ = 0;  // the position at the last flush
};

}  // namespace tarn
