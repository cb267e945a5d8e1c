#include "support/MovieLayout.h"

#include <algorithm>
#include <ranges>
#include <string>
#include <string_view>

#include "mp4/DataExtensions.h"
#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"

namespace tarn::test {
namespace {

using Kind = MovieLayout::Piece::Kind;

struct Table {
  size_t at;
  size_t count;
  bool isLong;

  size_t placeOf(size_t i) const { return at + 16 + i * (isLong ? 8 : 4); }
  uint64_t offset(const Bytes& moov, size_t i) const {
    return isLong ? *readUInt64(moov, placeOf(i)) : *readUInt32(moov, placeOf(i));
  }
};

/// The tables of chunk offsets.
std::vector<Table> tablesOf(const Bytes& moov) {
  const BoxEditor editor(moov);
  const std::string sampleTable = "moov/trak/mdia/minf/stbl/";
  std::vector<Table> tables;
  for (const char* type : {"stco", "co64"}) {
    for (const auto& box : editor.all(sampleTable + type)) {
      tables.push_back({box.offset, editor.field(box.offset + 12), std::string_view(type) == "co64"});
    }
  }
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
    for (size_t i = 0; i < table.count; ++i) starts.push_back(table.offset(moov, i) - mediaOffset_);
  }
  std::ranges::sort(starts);
  return starts;
}

void MovieLayout::useLongOffsets() {
  BoxEditor editor(moov);
  // From the last one on, so that those ahead of it stay where they are.
  for (const auto& stco : editor.all("moov/trak/mdia/minf/stbl/stco") | std::views::reverse) {
    Bytes rows = values({0, editor.field(stco.offset + 12)});
    for (size_t place = stco.offset + 16; place < stco.end(); place += 4) ByteWriter(rows).uint64(editor.field(place));
    editor.replace(stco, box("co64", {rows}));
  }
  moov = editor.bytes;
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
    for (size_t i = 0; i < table.count; ++i) {
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
