#include "sync/detail/MovieLevels.h"

#include <fmt/format.h>

#include <algorithm>
#include <span>

#include "mp4/BoxLayout.h"
#include "mp4/DataExtensions.h"
#include "sync/ErrorTypes.h"

namespace tarn {
namespace {

using Types = std::vector<std::string_view>;

/// Tests the boxes along the way from `parent` on, one level for each element.
void requireEditable(ByteView data, const BoxHeader& parent, std::span<const Types> way, uint64_t place) {
  if (way.empty()) return;
  auto walker = childWalker(data, parent);
  while (auto child = walker.next()) {
    if (std::ranges::find(way.front(), child->type) == way.front().end()) continue;
    const auto problem = child->headerSize != layout::boxHeaderSize ? std::string("has a 64-bit size")
                         : child->end() > parent.end()              ? "reaches over the end of the " + parent.type
                                                                    : std::string();
    if (!problem.empty()) {
      throw AVSyncError::fixError(fmt::format("The {} box at {} {}", child->type, place + child->offset, problem));
    }
    requireEditable(data, *child, way.subspan(1), place);
  }
}

}  // namespace

BufferBoxWalker childWalker(ByteView data, const BoxHeader& parent) {
  return {data, static_cast<size_t>(parent.offset) + static_cast<size_t>(parent.headerSize),
          static_cast<size_t>(parent.end()), boxwalk::openChildren};
}

BoxHeader wholeBox(ByteView data, std::string_view type) {
  return {.offset = 0, .size = data.size(), .type = std::string(type)};
}

std::optional<BoxHeader> findChild(ByteView data, const BoxHeader& parent,
                                   std::initializer_list<std::string_view> types) {
  auto walker = childWalker(data, parent);
  while (auto child = walker.next()) {
    if (std::ranges::find(types, child->type) != types.end()) return child;
  }
  return std::nullopt;
}

std::vector<BoxHeader> childrenOfType(ByteView data, const BoxHeader& parent, std::string_view type) {
  std::vector<BoxHeader> children;
  auto walker = childWalker(data, parent);
  while (auto child = walker.next()) {
    if (child->type == type && child->end() <= data.size()) children.push_back(*std::move(child));
  }
  return children;
}

uint64_t fieldBase(const BoxHeader& box) {
  return box.offset + static_cast<uint64_t>(box.headerSize) - layout::boxHeaderSize;
}

std::optional<std::string> findHandlerType(ByteView data, const BoxHeader& trak) {
  auto mdia = findChild(data, trak, {"mdia"});
  auto hdlr = mdia ? findChild(data, *mdia, {"hdlr"}) : std::nullopt;
  if (!hdlr || data.size() - fieldBase(*hdlr) < layout::handlerType.end()) return std::nullopt;
  return decodeASCII(data.subspan(fieldBase(*hdlr) + layout::handlerType.offset, layout::handlerType.width));
}

std::optional<uint32_t> findTrackID(ByteView data, const BoxHeader& trak) {
  auto tkhd = findChild(data, trak, {"tkhd"});
  if (!tkhd || data.size() - fieldBase(*tkhd) < layout::version.end()) return std::nullopt;
  const uint8_t* base = data.data() + fieldBase(*tkhd);
  const auto& field = layout::load(base, layout::version) != 0 ? layout::trackID64 : layout::trackID32;
  if (data.size() - fieldBase(*tkhd) < field.end()) return std::nullopt;
  return layout::load32(base, field);
}

void requireEditable(ByteView moov, uint64_t place) {
  const BoxHeader whole = wholeBox(moov, "moov");
  auto walker = childWalker(moov, whole);
  while (auto child = walker.next()) {
    if (child->type != "mdat") continue;
    throw AVSyncError::fixError(fmt::format("The moov box holds media, at {}", place + child->offset));
  }
  static const std::vector<Types> way = {{"trak"}, {"mdia"}, {"minf"}, {"stbl"}, {"stco", "co64"}};
  requireEditable(moov, whole, way, place);
}

}  // namespace tarn
