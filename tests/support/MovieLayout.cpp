#include "support/MovieLayout.h"

#include <algorithm>
#include <ranges>

#include "mp4/DataExtensions.h"
#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"

namespace tarn::test {
namespace {

using Kind = MovieLayout::Piece::Kind;

/// A chunk offset: where it stands in the `moov`, and what it says.
struct Entry {
  size_t place;
  bool isLong;
  uint64_t value;
};

std::vector<Entry> entriesOf(const Bytes& moov) {
  const BoxEditor editor(moov);
  std::vector<Entry> entries;
  for (bool isLong : {false, true}) {
    for (const auto& box : editor.all(isLong ? "moov/trak/mdia/minf/stbl/co64" : "moov/trak/mdia/minf/stbl/stco")) {
      for (size_t place = box.offset + 16; place < box.end(); place += isLong ? 8 : 4) {
        entries.push_back({place, isLong, isLong ? *readUInt64(moov, place) : *readUInt32(moov, place)});
      }
    }
  }
  return entries;
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
  for (const Entry& entry : entriesOf(moov)) starts.push_back(entry.value - mediaOffset_);
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
  for (const Entry& entry : entriesOf(moov)) {
    const uint64_t inMedia = entry.value - mediaOffset_;
    for (const auto& [part, offset] : parts) {
      if (inMedia < part.begin || inMedia >= part.end) continue;
      const uint64_t moved = offset + inMedia - part.begin;
      const size_t place = moovOffset + entry.place;
      entry.isLong ? writeUInt64(file, moved, place) : writeUInt32(file, static_cast<uint32_t>(moved), place);
    }
  }
  return file;
}

}  // namespace tarn::test
