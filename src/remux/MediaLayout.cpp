#include "remux/MediaLayout.h"

#include "mp4/BoxWalker.h"

namespace tarn {

ChunkOffsetShift MediaLayout::shift(const MP4BoxInfo& moov, int64_t delta) const {
  if (!isMdatBehindMoov) return {};
  return {.delta = delta, .movesFrom = isMoovFirst(moov) ? 0 : moov.end()};
}

MediaLayout findMediaLayout(FileHandle& file, const MP4BoxInfo& moov) {
  MediaLayout layout;
  FileBoxWalker walker(file, 0, file.seekToEnd(), boxwalk::topLevel);
  while (auto box = walker.next()) {
    if (box->type != "mdat") continue;
    if (!layout.firstMdat) layout.firstMdat = box->offset;
    layout.isMdatBehindMoov = box->offset > moov.offset;
    if (layout.isMdatBehindMoov) break;
  }
  return layout;
}

}  // namespace tarn
