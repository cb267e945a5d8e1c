#include "support/BoxEditor.h"

#include <algorithm>
#include <stdexcept>
#include <string>

#include "mp4/DataExtensions.h"

namespace tarn::test {
namespace {

/// Bytes between a box's start and its first child.
size_t childrenBegin(std::string_view type) {
  if (type == "stsd") return 16;
  if (type == "avc1" || type == "avc3" || type == "hvc1" || type == "hev1" || type == "encv") return 86;
  return 8;
}

std::string_view parentOf(std::string_view path) {
  size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

}  // namespace

std::optional<BoxEditor::Found> BoxEditor::find(std::string_view path, size_t begin, size_t end) const {
  std::string_view type = path.substr(0, 4);
  for (size_t p = begin; p + 8 <= end; p += std::max<size_t>(field(p), 8)) {
    if (textOf(ByteView(bytes).subspan(p + 4, 4)) != type) continue;
    Found box{p, field(p)};
    if (path.size() == type.size()) return box;
    if (auto inside = find(path.substr(5), p + childrenBegin(type), box.end())) return inside;
  }
  return std::nullopt;
}

BoxEditor::Found BoxEditor::at(std::string_view path) const {
  auto found = find(path, 0, bytes.size());
  if (!found) throw std::runtime_error("no " + std::string(path));
  return *found;
}

Bytes BoxEditor::get(std::string_view path) const {
  Found found = at(path);
  auto begin = bytes.begin() + static_cast<ptrdiff_t>(found.offset);
  return {begin, begin + static_cast<ptrdiff_t>(found.size)};
}

std::vector<BoxEditor::Found> BoxEditor::topLevel(std::string_view type) const {
  std::vector<Found> all;
  for (size_t p = 0; p + 8 <= bytes.size(); p += std::max<size_t>(field(p), 8)) {
    if (textOf(ByteView(bytes).subspan(p + 4, 4)) == type) all.push_back({p, field(p)});
  }
  return all;
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

void BoxEditor::remove(std::string_view path) {
  Found found = at(path);
  resizeParents(parentOf(path), -static_cast<int64_t>(found.size));
  auto begin = bytes.begin() + static_cast<ptrdiff_t>(found.offset);
  bytes.erase(begin, begin + static_cast<ptrdiff_t>(found.size));
}

void BoxEditor::insert(std::string_view parentPath, size_t offset, const Bytes& box) {
  resizeParents(parentPath, static_cast<int64_t>(box.size()));
  bytes.insert(bytes.begin() + static_cast<ptrdiff_t>(offset), box.begin(), box.end());
}

void BoxEditor::resizeParents(std::string_view path, int64_t delta) {
  for (; !path.empty(); path = parentOf(path)) {
    Found parent = at(path);
    setField(parent.offset, static_cast<uint32_t>(static_cast<int64_t>(parent.size) + delta));
  }
}

}  // namespace tarn::test
