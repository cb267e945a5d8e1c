#pragma once

#include <optional>

#include "mp4/BoxWalker.h"
#include "mp4/MP4BoxUtils.h"
#include "platform/FileManager.h"

namespace tarn {

/// A track with an `smhd` (ISO/IEC 14496-12 12.2.2), and the boxes on the way there.
struct SoundTrack {
  MP4BoxInfo trak;
  MP4BoxInfo mdia;
  MP4BoxInfo minf;
};

/// Walks the sound tracks of a `moov`, in file order. The file must outlive the walk, which moves its position. Never
/// throws: a box that cannot be read is not there.
class SoundTracks {
 public:
  SoundTracks(FileHandle& file, const MP4BoxInfo& moov)
      : file_(file), boxes_(file, moov.contentOffset(), moov.end(), boxwalk::topLevel) {}

  std::optional<SoundTrack> next();

 private:
  FileHandle& file_;
  FileBoxWalker boxes_;
};

}  // namespace tarn
