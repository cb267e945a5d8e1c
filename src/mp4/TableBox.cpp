#include "mp4/TableBox.h"

#include <fmt/format.h>

#include <algorithm>

#include "mp4/SampleTableBuilders.h"

namespace tarn {

TableBox::TableBox(FileHandle& file, const MP4BoxInfo& box, size_t fieldBytes)
    : file_(file), type_(box.type), offset_(box.offset) {
  uint64_t fileSize = file.seekToEnd();
  uint64_t contents = std::min(box.contentOffset(), fileSize);
  left_ = std::min(box.contentSize(), fileSize - contents);
  file.seek(contents);
  fields_.resize(std::min<uint64_t>(fieldBytes, left_));
  fields_.resize(readInto(fields_));
  if (fields_.empty()) throw unreadable();
  cursor_.emplace(fields_);
  cursor_->skipVersionAndFlags();
}

size_t TableBox::readInto(std::span<uint8_t> memory) {
  try {
    size_t count = file_.readInto(memory);
    left_ -= count;
    return count;
  } catch (const PosixError&) {
    throw unreadable();
  }
}

Error TableBox::unreadable() const {
  return sampleTableError("Cannot read " + type_);
}

ByteArrayError TableBox::tooShortFor(uint64_t count, size_t width) const {
  return ByteArrayError::insufficientData(fmt::format(
      "the {} at {} needs {} values of {} bytes and holds {} bytes of them", type_, offset_, count, width, left_));
}

MP4BoxInfo requireTableBox(FileHandle& file, const MP4BoxInfo& parent, std::string_view type) {
  auto box = MP4BoxUtils::findChildBox(file, parent, type);
  if (!box) throw sampleTableError(std::string(type) + " box not found");
  return *box;
}

}  // namespace tarn
