#include "mp4/MoovCheck.h"

#include <algorithm>
#include <array>
#include <initializer_list>
#include <span>
#include <string_view>

#include "mp4/BoxWalker.h"
#include "mp4/DataExtensions.h"

namespace tarn {
namespace {

/// One step of the way: a level's boxes that matter.
struct Level {
  std::array<std::string_view, 3> types;
  bool matters(std::string_view type) const { return !type.empty() && std::ranges::find(types, type) != types.end(); }
};

constexpr Level way[] = {{{"trak"}}, {{"mdia"}}, {{"minf"}}, {{"stbl"}}, {{"stsd", "stco", "co64"}}};

/// True for a header that ends a walk over a buffer.
bool endsBufferWalk(ByteView moov, const BoxHeader& header) {
  auto at = static_cast<size_t>(header.offset);
  return *readUInt32(moov, at) < 8 || !decodeASCII(moov.subspan(at + 4, 4));
}

std::optional<std::string> checkLevel(ByteView moov, uint64_t start, uint64_t end, std::span<const Level> levels) {
  if (levels.empty()) return std::nullopt;
  bool isHidden = false;
  BufferBoxWalker walker(moov, start, end, boxwalk::openChildren);
  while (auto header = walker.next()) {
    isHidden = isHidden || endsBufferWalk(moov, *header);
    if (!levels.front().matters(header->type)) continue;
    if (isHidden) return header->type + " box lies at or behind a box without a plain 32-bit size or type";
    if (header->end() > end) return header->type + " box extends beyond its parent";
    if (auto problem = checkLevel(moov, header->offset + 8, header->end(), levels.subspan(1))) return problem;
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> whatForbidsEditing(ByteView moov) {
  BufferBoxWalker walker(moov, 8, moov.size(), boxwalk::openChildren);
  while (auto header = walker.next()) {
    if (header->type == "mdat") return "moov box holds the media";
  }
  return checkLevel(moov, 8, moov.size(), way);
}

}  // namespace tarn
