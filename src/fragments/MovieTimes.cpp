#include "fragments/MovieTimes.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "movie/MovieError.h"
#include "mp4/DataExtensions.h"

namespace tarn {
namespace {

constexpr uint64_t uint32Max = std::numeric_limits<uint32_t>::max();

/// Gives an `mvhd`, `tkhd` or `mdhd` of version 0 the long times of version 1. `duration` is where its duration is.
void widen(MovieBox& header, const layout::Field& duration) {
  constexpr size_t times = 2 * sizeof(uint32_t);  // of creation and modification
  const size_t begin = layout::versionAndFlags.end() - layout::boxHeaderSize;
  const size_t end = duration.offset - layout::boxHeaderSize;
  const ByteView old = header.contents;
  Bytes wide;
  ByteWriter writer(wide);
  writer.uint8(1).bytes(old.subspan(1, begin - 1));
  for (size_t at = begin; at < begin + times; at += sizeof(uint32_t)) writer.uint32(0).bytes(old.subspan(at, 4));
  writer.bytes(old.subspan(begin + times, end - begin - times)).uint32(0).bytes(old.subspan(end));
  header.contents = std::move(wide);
}

MovieBox editBox(const std::vector<EditListEntry>& entries) {
  const bool isLong = std::ranges::any_of(entries, [](const EditListEntry& entry) {
    return entry.duration > static_cast<int64_t>(uint32Max) || entry.mediaTime > std::numeric_limits<int32_t>::max();
  });
  Bytes contents;
  ByteWriter writer(contents);
  writer.uint32(static_cast<uint32_t>(layout::versionWord(isLong ? 1 : 0)));
  writer.uint32(static_cast<uint32_t>(entries.size()));
  for (const EditListEntry& entry : entries) {
    if (isLong) {
      writer.uint64(static_cast<uint64_t>(entry.duration)).uint64(static_cast<uint64_t>(entry.mediaTime));
    } else {
      writer.uint32(static_cast<uint32_t>(entry.duration)).uint32(static_cast<uint32_t>(entry.mediaTime));
    }
    writer.uint32(static_cast<uint32_t>(entry.mediaRate));
  }
  return MovieBox::of("elst", std::move(contents));
}

}  // namespace

void storeDuration(MovieBox* header, const VersionedField& field, uint64_t ticks) {
  const auto old = field.load(header);
  if (!old) throw MovieError::damaged("A header of the moov ends before its duration");
  const bool isShort = header->contents.front() == 0;
  if (isShort && ticks >= uint32Max) widen(*header, field.version0);
  field.store(header, ticks);
}

std::vector<EditListEntry> editListOf(const MovieBox& trak) {
  const MovieBox* elst = trak.find({"edts", "elst"});
  return elst ? readEditList(elst->plainBytes(), editlist::replaced) : std::vector<EditListEntry>();
}

void putEdits(MovieBox& trak, const std::vector<EditListEntry>& entries) {
  if (entries.empty()) return trak.removeAll("edts");
  if (!trak.find({"edts"})) {
    // It stands after the `tkhd`.
    const auto header = std::ranges::find(trak.children, "tkhd", &MovieBox::type);
    trak.children.insert(header == trak.children.end() ? header : header + 1, MovieBox::of("edts", {}));
  }
  trak.find({"edts"})->put(editBox(entries));
}

}  // namespace tarn
