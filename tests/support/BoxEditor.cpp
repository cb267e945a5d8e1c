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

}  // namespace

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

}  // namespace tarn::test
