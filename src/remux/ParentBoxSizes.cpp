#include <array>
#include <limits>
#include <string>

#include "mp4/DataExtensions.h"
#include "mp4/MP4RemuxError.h"
#include "platform/Log.h"
#include "remux/MP4Remuxer.h"

namespace tarn {
namespace {

struct PathBox {
  const char* type;
  size_t offset;
};

/// The boxes from a `trak` down to its `stsd`, each the first of its type behind the header of the one above.
std::array<PathBox, 5> pathToStsd(ByteView moov, size_t trak) {
  std::array<PathBox, 5> path = {{{"trak", trak}, {"mdia", 0}, {"minf", 0}, {"stbl", 0}, {"stsd", 0}}};
  for (size_t i = 1; i < path.size(); ++i) {
    auto found = MP4BoxUtils::findBoxOffsets(moov, path[i].type, path[i - 1].offset + 8, std::nullopt, false);
    if (found.empty()) {
      throw MP4RemuxError::corruptedMP4(std::string(path[i].type) + " not found in " + path[i - 1].type);
    }
    path[i].offset = found.front();
  }
  return path;
}

struct SizeChange {
  uint32_t before;
  uint32_t after;
};

SizeChange changeSize(std::span<uint8_t> moov, size_t at, int64_t delta) {
  uint32_t before = readUInt32(moov, at).value_or(0);
  int64_t after = before + delta;
  if (after < 8 || after > std::numeric_limits<uint32_t>::max()) {
    throw MP4RemuxError::corruptedMP4("box size does not fit its size field");
  }
  writeUInt32(moov, static_cast<uint32_t>(after), at);
  return {before, static_cast<uint32_t>(after)};
}

}  // namespace

size_t MP4Remuxer::findStsdOffsetInTrak(ByteView moovData, size_t trakOffset) {
  return pathToStsd(moovData, trakOffset).back().offset;
}

void MP4Remuxer::updateParentBoxSizes(std::span<uint8_t> moovData, int64_t sizeDelta, size_t videoTrakOffset) {
  uint32_t trakSize = readUInt32(moovData, videoTrakOffset).value_or(0);
  log("Video trak boundaries: offset {}, end {}, size {} (adjusted by {})", videoTrakOffset,
      static_cast<int64_t>(videoTrakOffset) + trakSize + sizeDelta, trakSize, sizeDelta);
  // The way is looked up before a size changes: all these boxes begin ahead of what grew or shrank.
  auto path = pathToStsd(moovData, videoTrakOffset);
  for (auto box = path.rbegin(); box != path.rend(); ++box) {
    auto [before, after] = changeSize(moovData, box->offset, sizeDelta);
    log("Updated {} size: {} → {} (delta: {}, video track only)", box->type, before, after, sizeDelta);
  }
  auto [before, after] = changeSize(moovData, 0, sizeDelta);
  log("Updated moov size: {} → {} (delta: {})", before, after, sizeDelta);
}

}  // namespace tarn
