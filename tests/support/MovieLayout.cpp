#include "support/MovieLayout.h"

#include <algorithm>
#include <functional>
#include <string_view>

#include "mp4/DataExtensions.h"
#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"

namespace tarn::test {
namespace {

using Kind = MovieLayout::Piece::Kind;

/// Calls `visit` for each box of the type on the way moov/trak/mdia/minf/stbl, the box's offset and its parents' given.
void visitTables(const Bytes& data, std::string_view type,
                 const std::function<void(size_t at, const std::vector<size_t>& parents)>& visit) {
  std::vector<size_t> parents;
  std::function<void(size_t, size_t)> walk = [&](size_t begin, size_t end) {
    for (size_t p = begin; p + 8 <= end; p += *readUInt32(data, p)) {
      std::string_view found = textOf(ByteView(data).subspan(p + 4, 4));
      if (found == type) visit(p, parents);
      for (std::string_view container : {"moov", "trak", "mdia", "minf", "stbl"}) {
        if (found != container) continue;
        parents.push_back(p);
        walk(p + 8, p + *readUInt32(data, p));
        parents.pop_back();
      }
    }
  };
  walk(0, data.size());
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

std::vector<MovieLayout::Table> MovieLayout::tables() const {
  std::vector<Table> found;
  visitTables(moov, "stco", [&](size_t at, const auto&) { found.push_back({at, 4}); });
  visitTables(moov, "co64", [&](size_t at, const auto&) { found.push_back({at, 8}); });
  return found;
}

std::vector<uint64_t> MovieLayout::chunks() const {
  std::vector<uint64_t> starts;
  for (const Table& table : tables()) {
    for (size_t i = 0; i < *readUInt32(moov, table.at + 12); ++i) {
      size_t at = table.at + 16 + i * table.width;
      starts.push_back((table.width == 8 ? *readUInt64(moov, at) : *readUInt32(moov, at)) - mediaOffset_);
    }
  }
  std::ranges::sort(starts);
  return starts;
}

void MovieLayout::useLongOffsets() {
  for (bool isDone = false; !isDone;) {
    Bytes changed;
    visitTables(moov, "stco", [&](size_t at, const std::vector<size_t>& parents) {
      if (!changed.empty()) return;
      uint32_t count = *readUInt32(moov, at + 12);
      Bytes table = values({16 + 8 * count, 0x636F3634, 0, count});
      for (uint32_t i = 0; i < count; ++i) ByteWriter(table).uint64(*readUInt32(moov, at + 16 + i * 4));
      auto begin = moov.begin() + static_cast<ptrdiff_t>(at);
      changed = joined({Bytes(moov.begin(), begin), table, Bytes(begin + 16 + 4 * count, moov.end())});
      for (size_t parent : parents) writeUInt32(changed, *readUInt32(changed, parent) + 4 * count, parent);
    });
    isDone = changed.empty();
    if (!isDone) moov = changed;
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
  for (const Table& table : tables()) {
    for (size_t i = 0; i < *readUInt32(moov, table.at + 12); ++i) {
      size_t at = table.at + 16 + i * table.width;
      uint64_t inMedia = (table.width == 8 ? *readUInt64(moov, at) : *readUInt32(moov, at)) - mediaOffset_;
      for (const auto& [part, offset] : parts) {
        if (inMedia < part.begin || inMedia >= part.end) continue;
        uint64_t moved = offset + inMedia - part.begin;
        if (table.width == 8) {
          writeUInt64(file, moved, moovOffset + at);
        } else {
          writeUInt32(file, static_cast<uint32_t>(moved), moovOffset + at);
        }
      }
    }
  }
  return file;
}

}  // namespace tarn::test
