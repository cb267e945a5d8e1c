#include "mp4/EditList.h"

#include <algorithm>

#include "mp4/TableBox.h"

namespace tarn {
namespace {

EditListEntry entryOf(const uint8_t* row, bool is64Bit, bool hasSignedDurations) {
  const auto& fields = layout::editRow(is64Bit);
  const int64_t duration = hasSignedDurations ? layout::loadSigned(row, fields.duration)
                                              : static_cast<int64_t>(layout::load(row, fields.duration));
  return {duration, layout::loadSigned(row, fields.mediaTime),
          static_cast<int32_t>(layout::loadSigned(row, fields.mediaRate))};
}

}  // namespace

EditListRows::EditListRows(ByteView elst, const EditListRules& rules)
    : is64Bit_(layout::loadWithin(elst, layout::version) == 1),
      rules_(rules),
      rows_(elst, layout::editRow(is64Bit_).size, rules.hugeCount) {}

size_t EditListRows::size() const {
  return std::min(rows_.size(), rules_.mostEntries);
}

EditListEntry EditListRows::entry(size_t index) const {
  return entryOf(rows_.row(index), is64Bit_, rules_.hasSignedDurations);
}

std::vector<EditListEntry> readEditList(ByteView elst, const EditListRules& rules) {
  const EditListRows rows(elst, rules);
  std::vector<EditListEntry> entries;
  entries.reserve(rows.size());
  for (size_t i = 0; i < rows.size(); ++i) entries.push_back(rows.entry(i));
  return entries;
}

std::vector<EditListEntry> readEditList(FileHandle& file, const MP4BoxInfo& trak) {
  auto elst = MP4BoxUtils::findDescendant(file, trak, {"edts", "elst"});
  if (!elst) return {};
  TableBox box(file, *elst, TableBox::oneField);
  const bool is64Bit = box.version() == 1;
  const size_t rowSize = layout::editRow(is64Bit).size;
  uint64_t count = box.field();
  auto bytes = box.entries<uint8_t>(count * rowSize);
  std::vector<EditListEntry> entries;
  entries.reserve(count);
  for (const uint8_t* row = bytes.data(); entries.size() < count; row += rowSize) {
    entries.push_back(entryOf(row, is64Bit, false));
  }
  return entries;
}

}  // namespace tarn
