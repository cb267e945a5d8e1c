#include "remux/MediaLayout.h"

#include "mp4/MP4RemuxError.h"
#include "remux/OpenFile.h"

namespace tarn {
namespace {

constexpr uint64_t longestHeader = 16;

}  // namespace

ChunkOffsetShift MediaLayout::shift(const MP4BoxInfo& moov, int64_t delta) const {
  if (!isMdatBehindMoov) return {};
  return {.delta = delta, .movesFrom = isMoovFirst(moov) ? 0 : moov.end()};
}

MediaLayout findMediaLayout(FileHandle& file, const MP4BoxInfo& moov) {
  MediaLayout layout;
  uint64_t fileSize = file.seekToEnd();
  FileBoxWalker walker(file, 0, fileSize, boxwalk::topLevel);
  while (auto box = walker.next()) {
    if (box->type != "mdat") continue;
    if (!layout.firstMdat) layout.firstMdat = box->offset;
    layout.isMdatBehindMoov = box->offset > moov.offset;
    if (layout.isMdatBehindMoov) return layout;
  }
  requireWhole(walker, fileSize);
  return layout;
}

void requireWhole(const FileBoxWalker& walker, uint64_t fileSize) {
  using Reason = BoxWalkStop::Reason;
  const BoxWalkStop& stop = walker.stop();
  if (stop.reason == Reason::badSize) throw MP4RemuxError::corruptedMP4("a top-level box has a size that cannot be");
  if (stop.reason == Reason::unreadable && fileSize - stop.offset >= longestHeader) {
    throw fileHandleError("Cannot read box header");
  }
}

}  // namespace tarn
