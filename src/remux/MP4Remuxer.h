#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "mp4/MP4BoxUtils.h"
#include "platform/FileManager.h"

namespace tarn {

/// The video remuxer: it makes a file's video track one that players take, on the file itself. No state; one file at a
/// time. Failures are MP4RemuxError, ByteArrayError and PosixError; a file whose repair fails is as it was.
class MP4Remuxer {
 public:
  // --- Codec tag (ISO/IEC 14496-12 8.5.2, 14496-15) ---

  /// The four-character code of the video track's first sample entry, whatever the codec; nothing when the way to it
  /// is broken. Throws fileNotFound, and ioError when the file cannot be opened.
  static std::optional<std::string> detectHEVCTag(FileManager& files, const Path& fileURL);

  /// The same of a given `stsd`. Moves the file's position.
  static std::optional<std::string> readVideoCodecFromStsd(FileHandle& file, const MP4BoxInfo& stsd);

  /// The repair without a rewrite: a first sample entry "avc3" that holds an `avcC` of at least 15 bytes becomes
  /// "avc1", 4 bytes in the file itself, flushed. True when the entry needs nothing more; false for HEVC and when
  /// there is no such `avcC`. Throws fileNotFound, ioError, corruptedMP4 and, for another codec, unsupportedFormat.
  /// `codecTag` is what the caller found; the tag is read again.
  static bool remuxAVCTag(FileManager& files, const Path& fileURL, std::string_view codecTag);
};

}  // namespace tarn
