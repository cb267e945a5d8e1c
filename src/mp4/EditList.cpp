#include "mp4/EditList.h"

#include <algorithm>

#include "mp4/TableBox.h"

namespace tarn {
namespace {

EditListEntry entryOf(const uint8_t* entry, bool is64Bit, bool hasSignedDurations) {
  const auto& fields = layout::editEntry(is64Bit);
  const int64_t duration = hasSignedDurations ? layout::loadSigned(entry, fields.duration)
                                              : static_cast<int64_t>(layout::load(entry, fields.duration));
  return {duration, layout::loadSigned(entry, fields.mediaTime),
          static_cast<int32_t>(layout::loadSigned(entry, fields.mediaRate))};
}

}  // namespace

EditListEntries::EditListEntries(ByteView elst, const EditListRules& rules)
    : is64Bit_(layout::loadWithin(elst, layout::version) == 1),
      rules_(rules),
      entries_(elst, layout::editEntry(is64Bit_).size, rules.hugeCount) {}

size_t EditListEntries::size() const {
  return std::min(entries_.size(), rules_.mostEntries);
}

EditListEntry EditListEntries::entry(size_t index) const {
  return entryOf(entries_.entry(index), is64Bit_, rules_.hasSignedDurations);
}

std::vector<EditListEntry> readEditList(ByteView elst, const EditListRules& rules) {
  const EditListEntries stored(elst, rules);
  std::vector<EditListEntry> entries;
  entries.reserve(stored.size());
  for (size_t i = 0; i < stored.size(); ++i) entries.push_back(stored.entry(i));
  return entries;
}

std::vector<EditListEntry> readEditList(FileHandle& file, const MP4BoxInfo& trak) {
  auto elst = MP4BoxUtils::findDescendant(file, trak, {"edts", "elst"});
  if (!elst) return {};
  TableBox box(file, *elst, TableBox::oneField);
  const bool is64Bit = box.version() == 1;
  const size_t entrySize = layout::editEntry(is64Bit).size;
  uint64_t count = box.field();
  auto bytes = box.entries<uint8_t>(count * entrySize);
  std::vector<EditListEntry> entries;
  entries.reserve(count);
  for (const uint8_t* entry = bytes.data(); entries.size() < count; entry += entrySize) {
    entries.push_back(entryOf(entry, is64Bit, false));
  }
  return entries;
}

}  // namespace tarn
