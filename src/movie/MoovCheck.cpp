#include "movie/MoovCheck.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "movie/MovieError.h"
#include "mp4/BoxLayout.h"
#include "mp4/BoxWalker.h"
#include "mp4/DataExtensions.h"
#include "platform/Error.h"

namespace tarn {
namespace {

using Case = MovieError::Case;
using Types = std::vector<std::string_view>;

const std::vector<Types> wayToChunks = {{"trak"}, {"mdia"}, {"minf"}, {"stbl"}, {"stco", "co64"}};
const std::vector<Types> wayToEntries = {{"trak"}, {"mdia"}, {"minf"}, {"stbl"}, {"stsd", "stco", "co64"}};

class Check {
 public:
  Check(ByteView moov, uint64_t place, EditRules::Way way) : moov_(moov), place_(place), way_(way) {}

  /// The boxes along the way from `parent` on, one level for each element.
  void requireWay(const BoxHeader& parent, std::span<const Types> way) const {
    if (way.empty()) return;
    BufferBoxWalker walker(moov_, parent.offset + layout::boxHeaderSize, parent.end(), boxwalk::openChildren);
    while (const auto child = walker.next()) {
      if (std::ranges::find(way.front(), child->type) == way.front().end()) continue;
      const std::string problem = problemOf(*child, parent);
      if (!problem.empty()) throw MovieError(Case::damaged, problem);
      requireWay(*child, way.subspan(1));
    }
  }

 private:
  std::string problemOf(const BoxHeader& child, const BoxHeader& parent) const {
    return way_ == EditRules::Way::plainSizes ? problemOfPlain(child, parent) : problemOfShort(child, parent);
  }

  std::string problemOfPlain(const BoxHeader& child, const BoxHeader& parent) const {
    const std::string box = fmt::format("{} box at {} of the moov", child.type, child.offset);
    if (*readUInt32(moov_, child.offset) < layout::boxHeaderSize) {
      return fmt::format("{} lies at or behind a box without a plain 32-bit size or type, at {}", box, child.offset);
    }
    if (child.end() <= parent.end()) return {};
    return fmt::format("{} extends beyond its parent: it ends at {}, its parent at {}", box, child.end(), parent.end());
  }

  std::string problemOfShort(const BoxHeader& child, const BoxHeader& parent) const {
    const std::string box = fmt::format("The {} box at {}", child.type, place_ + child.offset);
    if (child.headerSize != layout::boxHeaderSize) return box + " has a 64-bit size";
    return child.end() > parent.end() ? box + " reaches over the end of the " + parent.type : std::string();
  }

  ByteView moov_;
  uint64_t place_;
  EditRules::Way way_;
};

void requireNoMedia(ByteView moov, uint64_t place, const EditRules& rules) {
  BufferBoxWalker walker(moov, layout::boxHeaderSize, moov.size(), boxwalk::openChildren);
  while (const auto child = walker.next()) {
    if (child->type != "mdat") continue;
    if (rules.way == EditRules::Way::plainSizes) throw MovieError(Case::damaged, "moov box holds the media");
    throw MovieError(Case::damaged, fmt::format("The moov box holds media, at {}", place + child->offset));
  }
}

}  // namespace

void requireEditable(ByteView moov, uint64_t place, const EditRules& rules) {
  requireNoMedia(moov, place, rules);
  const BoxHeader whole{.offset = 0, .size = moov.size(), .type = "moov"};
  if (rules.way == EditRules::Way::anySizes) return;
  const auto& way = rules.way == EditRules::Way::plainSizes ? wayToEntries : wayToChunks;
  Check(moov, place, rules.way).requireWay(whole, way);
}

Bytes readMoov(FileHandle& file, const BoxHeader& moov, const EditRules& rules) try {
  const uint64_t fileSize = file.seekToEnd();
  const uint64_t present = std::min(moov.end(), fileSize) - std::min(moov.offset, fileSize);
  if (present < layout::boxHeaderSize) throw MovieError(Case::unreadable, "Cannot read moov box", moov);
  if (present < moov.size && rules.cutMoov == EditRules::CutMoov::isRefused) {
    throw MovieError(Case::cutOff, "The moov box extends beyond the end of the file", moov);
  }
  if (moov.headerSize != layout::boxHeaderSize && rules.longMoov == EditRules::LongMoov::isRefused) {
    throw MovieError(Case::longSize, fmt::format("The moov box at {} has a 64-bit size", moov.offset), moov);
  }
  if (present > std::numeric_limits<uint32_t>::max()) {
    throw MovieError(Case::doesNotFit, "The moov does not fit a 32-bit size", moov);
  }
  file.seek(moov.offset);
  Bytes bytes = file.read(static_cast<size_t>(present));
  if (bytes.size() < present) throw MovieError(Case::unreadable, "Cannot read moov box", moov);
  return bytes;
} catch (const PosixError&) {
  throw MovieError(Case::unreadable, "Cannot read moov box", moov);
}

}  // namespace tarn
