#include "remux/detail/ParentBoxSizes.h"

#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mp4/BoxWalker.h"
#include "mp4/DataExtensions.h"
#include "mp4/MP4RemuxError.h"
#include "platform/Log.h"

namespace tarn {
namespace {

struct PathBox {
  const char* type;
  size_t offset;
};

/// The first box of this type from `start` on, one level, up to the end of the `moov`.
std::optional<size_t> findFirstBox(ByteView moov, std::string_view type, size_t start) {
  BufferBoxWalker walker(moov, start, moov.size(), boxwalk::openChildren);
  while (auto header = walker.next()) {
    if (header->type == type) return static_cast<size_t>(header->offset);
  }
  return std::nullopt;
}

/// The boxes from a `trak` down to the first of this type, each the first of its type after the header of the one
/// above.
std::vector<PathBox> pathTo(std::string_view last, ByteView moov, size_t trak) {
  std::vector<PathBox> path = {{"trak", trak}};
  for (const char* type : {"mdia", "minf", "stbl", "stsd"}) {
    if (path.back().type == last) break;
    auto found = findFirstBox(moov, type, path.back().offset + 8);
    if (!found) throw MP4RemuxError::corruptedMP4(std::string(type) + " not found in " + path.back().type);
    path.push_back({type, *found});
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

/// Changes the sizes from the innermost box up to the `moov`.
void changeSizes(std::span<uint8_t> moov, int64_t delta, size_t trak, std::string_view innermost,
                 std::string_view purpose) {
  uint32_t trakSize = readUInt32(moov, trak).value_or(0);
  log("Video trak boundaries{}: offset {}, end {}, size {} (adjusted by {})", purpose, trak,
      static_cast<int64_t>(trak) + trakSize + delta, trakSize, delta);
  // The way is looked up before a size changes: all these boxes begin before what grew or shrank.
  auto path = pathTo(innermost, moov, trak);
  for (auto box = path.rbegin(); box != path.rend(); ++box) {
    auto [before, after] = changeSize(moov, box->offset, delta);
    log("Updated {} size: {} → {} (delta: {}, video track only)", box->type, before, after, delta);
  }
  auto [before, after] = changeSize(moov, 0, delta);
  log("Updated moov size: {} → {} (delta: {})", before, after, delta);
}

}  // namespace

size_t findStsdOffsetInTrak(ByteView moov, size_t trakOffset) {
  return pathTo("stsd", moov, trakOffset).back().offset;
}

void updateParentBoxSizes(std::span<uint8_t> moov, int64_t sizeDelta, size_t videoTrakOffset) {
  changeSizes(moov, sizeDelta, videoTrakOffset, "stsd", "");
}

void updateParentBoxSizesForStbl(std::span<uint8_t> moov, int64_t sizeDelta, size_t videoTrakOffset) {
  changeSizes(moov, sizeDelta, videoTrakOffset, "minf", " for stbl update");
}

}  // namespace tarn
