#include "movie/TrackFields.h"

#include <algorithm>
#include <limits>

#include "movie/MovieError.h"
#include "platform/Log.h"

namespace tarn {
namespace {

bool isChunkTable(const MovieBox& box) {
  return box.type == "stco" || box.type == "co64";
}

/// Where a field lies in the contents; nothing if the box ends before it.
std::optional<layout::Field> inContents(const MovieBox* box, layout::Field field) {
  field.offset -= layout::boxHeaderSize;
  return box && field.end() <= box->contents.size() ? std::optional(field) : std::nullopt;
}

std::optional<layout::Field> presentField(const MovieBox* box, const VersionedField& fields) {
  const auto version = inContents(box, layout::version);
  if (!version) return std::nullopt;
  return inContents(box, layout::load(box->contents.data(), *version) == 0 ? fields.version0 : fields.otherVersions);
}

void moveTable(std::span<uint8_t> moov, const MovieBox& table, const ChunkOffsetShift& shift) {
  if (table.contents.size() < layout::tableHeaderSize - layout::boxHeaderSize) {
    log("WARNING: stco offset {} out of bounds", table.offset);
    return;
  }
  const uint32_t count = layout::load32(moov.data() + table.offset, layout::entryCount);
  log("Adjusting {} at offset {}: {} chunk offsets by {} bytes", table.type, table.offset, count, shift.delta);
  ChunkOffsetTable::adjustTableInPlace(moov, table.offset, shift, table.type == "co64");
  log("Successfully adjusted {} chunk offsets in {}", count, table.type);
}

}  // namespace

std::optional<uint64_t> VersionedField::load(const MovieBox* box) const {
  const auto field = presentField(box, *this);
  return field ? std::optional(layout::load(box->contents.data(), *field)) : std::nullopt;
}

std::optional<VersionedField::Change> VersionedField::store(MovieBox* box, uint64_t value) const {
  const auto field = presentField(box, *this);
  if (!field) return std::nullopt;
  const uint64_t before = layout::load(box->contents.data(), *field);
  const uint64_t after = field->width == 4 ? std::min<uint64_t>(value, std::numeric_limits<uint32_t>::max()) : value;
  layout::store(box->contents.data(), *field, after);
  return Change{before, after};
}

std::string_view handlerOf(const MovieBox& trak) {
  const MovieBox* hdlr = trak.find({"mdia", "hdlr"});
  const auto field = inContents(hdlr, layout::handlerType);
  return field ? textOf(ByteView(hdlr->contents).subspan(field->offset, field->width)) : std::string_view();
}

MovieBox* findTrack(MovieBox& moov, MP4TrackType type, const EditRules& rules) {
  const std::string_view mediaHeader = type == MP4TrackType::video ? "vmhd" : "smhd";
  const auto first = [&](auto isWanted) {
    const auto found =
        std::ranges::find_if(moov.children, [&](const MovieBox& box) { return box.type == "trak" && isWanted(box); });
    return found == moov.children.end() ? nullptr : &*found;
  };
  const auto hasHandler = [&](const MovieBox& trak) { return handlerOf(trak) == handlerTypeText(type); };
  const auto hasHeader = [&](const MovieBox& trak) { return trak.find({"mdia", "minf", mediaHeader}) != nullptr; };
  if (rules.track == EditRules::Track::byHandlerOrHeader) {
    return first([&](const MovieBox& trak) { return hasHandler(trak) || hasHeader(trak); });
  }
  MovieBox* track = first(hasHandler);
  return track || rules.track == EditRules::Track::byHandler ? track : first(hasHeader);
}

void moveChunks(std::span<uint8_t> moov, const ChunkOffsetShift& shift, const EditRules& rules) {
  if (rules.tables == EditRules::Tables::allInMoov) return ChunkOffsetTable::adjustAllInMoov(moov, shift);
  const MovieBox tree = MovieBox::parse(moov, rules);
  for (const MovieBox& trak : tree.children) {
    const MovieBox* stbl = trak.type == "trak" ? trak.find({"mdia", "minf", "stbl"}) : nullptr;
    if (!stbl) continue;
    const auto table = std::ranges::find_if(stbl->children, isChunkTable);
    if (table != stbl->children.end()) moveTable(moov, *table, shift);
  }
}

void moveChunks(MovieBox& trak, std::span<const MediaMove> moves) {
  MovieBox* stbl = trak.find({"mdia", "minf", "stbl"});
  if (!stbl) return;
  for (MovieBox& table : stbl->children) {
    if (!isChunkTable(table)) continue;
    const auto moved = ChunkOffsetTable::moved(table.plainBytes(), moves);
    if (!moved) throw MovieError(MovieError::Case::damaged, "A chunk lies in no mdat box");
    const uint64_t oldSize = table.size();
    table = MovieBox::of(moved->box);
    if (!moved->isPromoted) continue;
    logLine("  Warning: stco offset would overflow 32-bit, upgrading to co64");
    log("  Upgraded stco to co64: {} bytes -> {} bytes", oldSize, table.size());
  }
}

}  // namespace tarn
