#include "movie/MoovCheck.h"

#include <fmt/format.h>

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

/// `hides` is true where an odd box hides what lies behind it on its level.
std::optional<std::string> checkLevel(ByteView moov, uint64_t start, uint64_t end, std::span<const Level> levels,
                                      bool hides) {
  if (levels.empty()) return std::nullopt;
  bool isHidden = false;
  uint64_t odd = 0;  // where the box begins that hides the others
  BufferBoxWalker walker(moov, start, end, boxwalk::openChildren);
  while (auto header = walker.next()) {
    if (!hides) isHidden = false;
    if (!isHidden && endsBufferWalk(moov, *header)) {
      isHidden = true;
      odd = header->offset;
    }
    if (!levels.front().matters(header->type)) continue;
    const std::string place = fmt::format("{} box at {} of the moov", header->type, header->offset);
    if (isHidden)
      return fmt::format("{} lies at or behind a box without a plain 32-bit size or type, at {}", place, odd);
    if (header->end() > end) {
      return fmt::format("{} extends beyond its parent: it ends at {}, its parent at {}", place, header->end(), end);
    }
    if (auto problem = checkLevel(moov, header->offset + 8, header->end(), levels.subspan(1), hides)) return problem;
  }
  return std::nullopt;
}

std::optional<std::string> check(ByteView moov, bool hides) {
  BufferBoxWalker walker(moov, 8, moov.size(), boxwalk::openChildren);
  while (auto header = walker.next()) {
    if (header->type == "mdat") return "moov box holds the media";
  }
  return checkLevel(moov, 8, moov.size(), way, hides);
}

}  // namespace

std::optional<std::string> whatForbidsEditing(ByteView moov) {
  return check(moov, true);
}

std::optional<std::string> whatForbidsEditingTheWay(ByteView moov) {
  return check(moov, false);
}

}  // namespace tarn
