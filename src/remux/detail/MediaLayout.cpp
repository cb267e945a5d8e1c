#include "remux/detail/MediaLayout.h"

#include <fmt/format.h>

#include <algorithm>

#include "mp4/BoxWalker.h"
#include "mp4/MP4RemuxError.h"
#include "remux/detail/OpenFile.h"

namespace tarn {
namespace {

constexpr uint64_t longestHeader = 16;

}  // namespace

ChunkOffsetShift MediaLayout::shift(const MP4BoxInfo& moov, int64_t delta) const {
  if (!isMdatBehindMoov && !isTailBehindMoov) return {};
  return {.delta = delta, .movesFrom = isMoovFirst(moov) ? 0 : moov.end()};
}

MediaLayout findMediaLayout(FileHandle& file, const MP4BoxInfo& moov) {
  MediaLayout layout{.fileSize = file.seekToEnd()};
  FileBoxWalker walker(file, 0, layout.fileSize, boxwalk::topLevelScan);
  while (auto box = walker.next()) {
    const bool isMdat = box->type == "mdat";
    layout.isMdatCut = isMdat && box->end() > layout.fileSize;
    if (box->end() > layout.fileSize && !isMdat) break;
    layout.end = std::min(box->end(), layout.fileSize);
    if (!isMdat) continue;
    if (!layout.firstMdat) layout.firstMdat = box->offset;
    layout.isMdatBehindMoov = layout.isMdatBehindMoov || box->offset > moov.offset;
  }
  if (walker.stop().reason == BoxWalkStop::Reason::unreadable && layout.fileSize - layout.end >= longestHeader) {
    throw fileHandleError(fmt::format("Cannot read the box header at {}", layout.end));
  }
  layout.isTailBehindMoov = layout.end < layout.fileSize;
  if (layout.end < moov.end()) throw MP4RemuxError::corruptedMP4(fmt::format("no box begins at {}", layout.end));
  return layout;
}

}  // namespace tarn
