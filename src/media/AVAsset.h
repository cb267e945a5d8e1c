#pragma once

#include <cstdint>
#include <vector>

#include "mp4/MP4BoxUtils.h"
#include "platform/FileManager.h"

namespace tarn {

enum class AVMediaType { video, audio };

/// One track of an asset, as its headers describe it.
struct AVAssetTrack {
  uint32_t trackID = 0;  ///< 0 where the `tkhd` is missing or damaged
  AVMediaType mediaType = AVMediaType::video;
  uint32_t naturalTimeScale = 0;  ///< ticks per second of the media's clock; 0 where the `mdhd` is missing or damaged
  MP4BoxInfo trak;                ///< where the track's box lies in the file
};

/// A media file on disk, read when asked. The FileManager must outlive it.
class AVAsset {
 public:
  AVAsset(FileManager& files, Path url) : files_(files), url_(std::move(url)) {}

  /// The tracks whose handler is that of the type ("vide", "soun"; ISO/IEC 14496-12 8.4.3), in file order. A file
  /// that is missing, cannot be read, or has no `moov` has no tracks.
  std::vector<AVAssetTrack> tracks(AVMediaType withMediaType) const;

 private:
  FileManager& files_;
  Path url_;
};

}  // namespace tarn
