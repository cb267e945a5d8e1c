#include "support/MovieLayout.h"

#include <algorithm>
#include <ranges>
#include <string_view>

#include "mp4/DataExtensions.h"
#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"

namespace tarn::test {
namespace {

using Kind = MovieLayout::Piece::Kind;

struct Table {
  size_t at;
  std::vector<size_t> parents;  ///< where the boxes around it begin
  bool isLong;

  size_t count(const Bytes& moov) const { return *readUInt32(moov, at + 12); }
  size_t placeOf(size_t i) const { return at + 16 + i * (isLong ? 8 : 4); }
  uint64_t offset(const Bytes& moov, size_t i) const {
    return isLong ? *readUInt64(moov, placeOf(i)) : *readUInt32(moov, placeOf(i));
  }
};

/// The tables of chunk offsets on the way moov/trak/mdia/minf/stbl.
void findTables(const Bytes& data, size_t begin, size_t end, std::vector<size_t>& parents, std::vector<Table>& tables) {
  for (size_t p = begin; p + 8 <= end; p += *readUInt32(data, p)) {
    const std::string_view type = textOf(ByteView(data).subspan(p + 4, 4));
    if (type == "stco" || type == "co64") tables.push_back({p, parents, type == "co64"});
    if (type != "moov" && type != "trak" && type != "mdia" && type != "minf" && type != "stbl") continue;
    parents.push_back(p);
    findTables(data, p + 8, p + *readUInt32(data, p), parents, tables);
    parents.pop_back();
  }
}

std::vector<Table> tablesOf(const Bytes& moov) {
  std::vector<size_t> parents;
  std::vector<Table> tables;
  findTables(moov, 0, moov.size(), parents, tables);
  return tables;
}

Bytes mdatHeader(Kind kind, size_t length) {
  if (kind == Kind::longMdat) return longBoxClaiming(16 + length, "mdat");
  return boxClaiming(kind == Kind::openMdat ? 0 : static_cast<uint32_t>(8 + length), "mdat");
}

}  // namespace

MovieLayout::MovieLayout(const Bytes& file) {
  BoxEditor editor(file);
  ftyp = editor.get("ftyp");
  moov = editor.get("moov");
  media = editor.get("mdat");
  media.erase(media.begin(), media.begin() + 8);
  mediaOffset_ = editor.at("mdat").offset + 8;
}

std::vector<uint64_t> MovieLayout::chunks() const {
  std::vector<uint64_t> starts;
  for (const Table& table : tablesOf(moov)) {
    for (size_t i = 0; i < table.count(moov); ++i) starts.push_back(table.offset(moov, i) - mediaOffset_);
  }
  std::ranges::sort(starts);
  return starts;
}

void MovieLayout::useLongOffsets() {
  // From the last one on, so that those ahead of it stay where they are.
  for (const Table& table : tablesOf(moov) | std::views::reverse) {
    if (table.isLong) continue;
    const auto count = static_cast<uint32_t>(table.count(moov));
    Bytes longTable = values({16 + 8 * count, 0x636F3634, 0, count});
    for (uint32_t i = 0; i < count; ++i) ByteWriter(longTable).uint64(table.offset(moov, i));
    const auto begin = moov.begin() + static_cast<ptrdiff_t>(table.at);
    moov = joined({Bytes(moov.begin(), begin), longTable, Bytes(begin + 16 + 4 * count, moov.end())});
    for (size_t parent : table.parents) writeUInt32(moov, *readUInt32(moov, parent) + 4 * count, parent);
  }
}

Bytes MovieLayout::build(const std::vector<Piece>& pieces) const {
  Bytes file;
  size_t moovOffset = 0;
  std::vector<std::pair<Piece, uint64_t>> parts;  // where each part of the media came to lie
  for (Piece piece : pieces) {
    if (piece.kind == Kind::raw) {
      ByteWriter(file).bytes(piece.bytes);
    } else if (piece.kind == Kind::moov || piece.kind == Kind::openMoov) {
      moovOffset = file.size();
      ByteWriter(file).bytes(moov);
      if (piece.kind == Kind::openMoov) writeUInt32(file, 0, moovOffset);
    } else {
      piece.end = std::min<uint64_t>(piece.end, media.size());
      size_t length = piece.end - piece.begin;
      ByteWriter(file).bytes(mdatHeader(piece.kind, length));
      parts.emplace_back(piece, file.size());
      ByteWriter(file).bytes(ByteView(media).subspan(piece.begin, length));
    }
  }
  for (const Table& table : tablesOf(moov)) {
    for (size_t i = 0; i < table.count(moov); ++i) {
      const uint64_t inMedia = table.offset(moov, i) - mediaOffset_;
      for (const auto& [part, offset] : parts) {
        if (inMedia < part.begin || inMedia >= part.end) continue;
        const uint64_t moved = offset + inMedia - part.begin;
        const size_t place = moovOffset + table.placeOf(i);
        table.isLong ? writeUInt64(file, moved, place) : writeUInt32(file, static_cast<uint32_t>(moved), place);
      }
    }
  }
  return file;
}

}  // namespace tarn::test
