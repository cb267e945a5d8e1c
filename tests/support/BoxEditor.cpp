#include "support/BoxEditor.h"

#include <algorithm>
#include <map>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace tarn::test {
namespace {

using Kind = MovieLayout::Piece::Kind;

/// The boxes that have children, with the bytes that stand ahead of those, the header counted.
const std::map<std::string_view, size_t>& parents() {
  static const std::map<std::string_view, size_t> known = {
      {"moov", 8},  {"trak", 8},  {"mdia", 8},  {"minf", 8},  {"stbl", 8},  {"edts", 8}, {"stsd", 16},
      {"avc1", 86}, {"avc3", 86}, {"hvc1", 86}, {"hev1", 86}, {"encv", 86}, {"mp4a", 36}};
  return known;
}

/// Where the children of a box begin that has some, whatever its type.
size_t childrenBegin(std::string_view type) {
  const auto parent = parents().find(type);
  return parent == parents().end() ? 8 : parent->second;
}

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

// --- BoxEditor ---

std::string_view BoxEditor::typeAt(size_t offset) const {
  return textOf(ByteView(bytes).subspan(offset + 4, 4));
}

void BoxEditor::collect(std::string_view path, size_t begin, size_t end, std::vector<Found>& found) const {
  const std::string_view type = path.substr(0, 4);
  for (size_t p = begin; p + 8 <= end; p += std::max<size_t>(field(p), 8)) {
    if (typeAt(p) != type) continue;
    if (path.size() == type.size()) {
      found.push_back({p, field(p)});
    } else {
      collect(path.substr(5), p + childrenBegin(type), p + field(p), found);
    }
  }
}

std::vector<BoxEditor::Found> BoxEditor::all(std::string_view path) const {
  std::vector<Found> found;
  collect(path, 0, bytes.size(), found);
  return found;
}

BoxEditor::Found BoxEditor::at(std::string_view path) const {
  const auto found = all(path);
  if (found.empty()) throw std::runtime_error("no " + std::string(path));
  return found.front();
}

Bytes BoxEditor::get(std::string_view path) const {
  const Found found = at(path);
  const auto begin = bytes.begin() + static_cast<ptrdiff_t>(found.offset);
  return {begin, begin + static_cast<ptrdiff_t>(found.size)};
}

uint32_t BoxEditor::field(size_t offset) const {
  return readUInt32(bytes, offset).value();
}

void BoxEditor::setField(size_t offset, uint32_t value) {
  writeUInt32(bytes, value, offset);
}

void BoxEditor::rename(std::string_view path, std::string_view type) {
  std::ranges::copy(bytesOf(type), bytes.begin() + static_cast<ptrdiff_t>(at(path).offset) + 4);
}

void BoxEditor::replace(const Found& box, const Bytes& replacement) {
  splice(box, box.offset, box.size, replacement);
}

void BoxEditor::insert(std::string_view parentPath, size_t offset, const Bytes& box) {
  splice(at(parentPath), offset, 0, box);
}

void BoxEditor::splice(const Found& inside, size_t offset, size_t removed, const Bytes& added) {
  for (size_t p = 0; p <= inside.offset;) {
    const size_t size = field(p);
    const bool isAround = inside.end() <= p + size;
    if (isAround) setField(p, static_cast<uint32_t>(size + added.size() - removed));
    p += isAround ? childrenBegin(typeAt(p)) : std::max<size_t>(size, 8);
  }
  const auto place = bytes.begin() + static_cast<ptrdiff_t>(offset);
  bytes.insert(bytes.erase(place, place + static_cast<ptrdiff_t>(removed)), added.begin(), added.end());
}

// --- BoxTree ---

BoxTree::BoxTree(ByteView box) : type(textOf(box.subspan(4, 4))) {
  size_t at = parents().contains(type) ? childrenBegin(type) : box.size();
  fields.assign(box.begin() + 8, box.begin() + static_cast<ptrdiff_t>(at));
  for (; at < box.size(); at += readUInt32(box, at).value()) {
    children.emplace_back(box.subspan(at, readUInt32(box, at).value()));
  }
}

Bytes BoxTree::bytes() const {
  Bytes contents = fields;
  for (const BoxTree& each : children) contents = joined({contents, each.bytes()});
  return box(type, {contents});
}

std::vector<BoxTree>::iterator BoxTree::child(const std::string& childType) {
  return std::ranges::find(children, childType, &BoxTree::type);
}

BoxTree& BoxTree::at(const std::string& path) {
  const auto found = child(path.substr(0, 4));
  if (found == children.end()) throw std::runtime_error("no " + path + " in " + type);
  return path.size() == 4 ? *found : found->at(path.substr(5));
}

BoxTree* BoxTree::track(const std::string& handler) {
  const auto found = std::ranges::find_if(children, [&](BoxTree& each) {
    return each.type == "trak" && textOf(ByteView(each.at("mdia/hdlr").fields).subspan(8, 4)) == handler;
  });
  return found == children.end() ? nullptr : &*found;
}

// --- MovieLayout ---

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
  auto found = editor.all("moov/trak/mdia/minf/stbl/stco");
  for (; !found.empty(); found.pop_back()) {
    const auto& stco = found.back();
    Bytes rows = values({0, editor.field(stco.offset + 12)});
    for (size_t place = stco.offset + 16; place < stco.end(); place += 4) ByteWriter(rows).uint64(editor.field(place));
    editor.replace(stco, box("co64", {rows}));
  }
  moov = editor.bytes;
}

Bytes MovieLayout::build(const std::string& parts) const {
  const auto starts = chunks();
  const uint64_t half = starts.empty() ? 0 : starts[starts.size() / 2];
  const std::map<std::string, Piece> known = {
      {"ftyp", {Kind::raw, ftyp}},
      {"moov", {Kind::moov}},
      {"openMoov", {Kind::openMoov}},
      {"mdat", {Kind::mdat}},
      {"longMdat", {Kind::longMdat}},
      {"openMdat", {Kind::openMdat}},
      {"first", {Kind::mdat, {}, 0, half}},
      {"second", {Kind::mdat, {}, half}},
      {"longSecond", {Kind::longMdat, {}, half}},
      {"openSecond", {Kind::openMdat, {}, half}},
      {"free", {Kind::raw, box("free", {Bytes(50)})}},
      {"uuid", {Kind::raw, box("uuid", {Bytes(40, 3)})}},
      {"openFtyp", {Kind::raw, boxClaiming(0, "ftyp", {values({0x69736F6D, 0})})}},
      {"tail", {Kind::raw, values({3, 3, 3})}},
  };
  static const Piece large{Kind::raw, box("uuid", {Bytes(11'000'000, 5)})};
  std::vector<Piece> pieces;
  std::istringstream words(parts);
  for (std::string part; words >> part;) pieces.push_back(part == "large" ? large : known.at(part));
  return build(pieces);
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
