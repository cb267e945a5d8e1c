#include "movie/MediaLayout.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "movie/MovieError.h"
#include "mp4/BoxLayout.h"
#include "mp4/DataExtensions.h"
#include "platform/Checked.h"

namespace tarn {
namespace {

using Case = MovieError::Case;

constexpr size_t mostBoxes = 1'000'000;

/// True if the bytes at the end of a walk are too few for a header, and not a header that could not be read.
bool isTooShortForABox(FileHandle& file, uint64_t offset, uint64_t fileSize) {
  constexpr uint32_t longSize = 1;
  const uint64_t left = fileSize - std::min(offset, fileSize);
  if (left < layout::boxHeaderSize || left >= 2 * layout::boxHeaderSize) return left < layout::boxHeaderSize;
  file.seek(offset);
  return readUInt32(file.read(layout::boxHeaderSize), 0) == longSize;
}

MediaLayout scanned(FileHandle& file, const EditRules& rules) {
  MediaLayout layout{.boxes = {}, .fileSize = file.seekToEnd()};
  FileBoxWalker walker(file, 0, layout.fileSize, rules.topLevel);
  while (auto box = walker.next()) {
    if (layout.boxes.size() == mostBoxes) throw MovieError(Case::damaged, "The file holds too many boxes");
    if (!layout.isCut(*box) || box->type == "mdat") layout.end = std::min(box->end(), layout.fileSize);
    const bool isLast = box->size < layout::boxHeaderSize;
    layout.boxes.push_back(*std::move(box));
    if (isLast) return layout;
  }
  const BoxWalkStop& stop = walker.stop();
  if (stop.reason == BoxWalkStop::Reason::unreadable && !isTooShortForABox(file, stop.offset, layout.fileSize)) {
    throw MovieError(Case::unreadable, fmt::format("Cannot read the box header at {}", stop.offset));
  }
  return layout;
}

}  // namespace

MediaLayout MediaLayout::scan(FileHandle& file, const EditRules& rules) {
  try {
    return scanned(file, rules);
  } catch (const PosixError&) {
    throw MovieError(Case::unreadable, "Cannot read the boxes of the file");
  }
}

std::optional<BoxHeader> MediaLayout::first(std::string_view type) const {
  const auto found = std::ranges::find(boxes, type, &BoxHeader::type);
  return found == boxes.end() ? std::nullopt : std::optional(*found);
}

std::optional<BoxHeader> MediaLayout::last(std::string_view type) const {
  const auto found = std::find_if(boxes.rbegin(), boxes.rend(), [&](const BoxHeader& box) { return box.type == type; });
  return found == boxes.rend() ? std::nullopt : std::optional(*found);
}

std::optional<BoxHeader> MediaLayout::moov(const EditRules& rules) const {
  return rules.moov == EditRules::WhichMoov::last ? last("moov") : first("moov");
}

bool MediaLayout::hasMediaBehind(const BoxHeader& moov) const {
  const auto mdat = last("mdat");
  return mdat && mdat->offset > moov.offset;
}

ChunkOffsetShift MediaLayout::shift(const BoxHeader& moov, int64_t growth, const EditRules& rules) const {
  const bool hasTail = end < fileSize && rules.tail == EditRules::Tail::isMedia;
  if (!hasMediaBehind(moov) && !hasTail) return {};
  const auto mdat = first("mdat");
  // Where media lie on both sides of the `moov`, those before it stay.
  return {.delta = growth, .movesFrom = mdat && mdat->offset > moov.offset ? 0 : moov.end()};
}

std::vector<MediaMove> MediaLayout::moves(uint64_t start) const {
  std::vector<MediaMove> moves;
  for (const BoxHeader& box : boxes) {
    if (box.type != "mdat") continue;
    moves.push_back({box.offset, box.end(), start});
    const auto next = checkedAdd(start, box.size);
    if (!next) throw MovieError(Case::doesNotFit, "The media do not fit a file");
    start = *next;
  }
  return moves;
}

}  // namespace tarn
