#include "remux/detail/LongOffsets.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <vector>

#include "mp4/BoxLayout.h"
#include "mp4/DataExtensions.h"
#include "mp4/MP4RemuxError.h"
#include "mp4/SampleTableBuilders.h"
#include "platform/Log.h"
#include "remux/detail/MoovSearch.h"

namespace tarn {
namespace {

using layout::boxHeaderSize;

/// A table and the boxes around it, from the `moov` on.
struct Table {
  std::vector<size_t> parents;
  size_t offset = 0;
  size_t size = 0;
};

std::optional<Table> findTable(ByteView moov, size_t trak) {
  Table table{.parents = {0}, .offset = trak, .size = *readUInt32(moov, trak)};
  for (const char* type : {"mdia", "minf", "stbl", "stco"}) {
    auto child = findFirstBox(moov, type, table.offset + boxHeaderSize, table.offset + table.size);
    if (!child) return std::nullopt;
    table.parents.push_back(table.offset);
    table.offset = *child;
    table.size = *readUInt32(moov, *child);
  }
  return table;
}

std::vector<uint64_t> offsetsIn(ByteView moov, const Table& table) {
  std::vector<uint64_t> offsets;
  const size_t end = std::min(table.offset + table.size, moov.size());
  const size_t count = readUInt32(moov, table.offset + layout::entryCount.offset).value_or(0);
  for (size_t at = table.offset + layout::tableHeaderSize; at + 4 <= end && offsets.size() < count; at += 4) {
    offsets.push_back(*readUInt32(moov, at));
  }
  return offsets;
}

void replaceTable(Bytes& moov, const Table& table, ByteView box) {
  const uint64_t growth = box.size() - table.size;
  for (size_t parent : table.parents) {
    const uint64_t size = *readUInt32(moov, parent) + growth;
    if (size > UINT32_MAX) throw MP4RemuxError::corruptedMP4(fmt::format("a box of {} bytes does not fit", size));
    writeUInt32(moov, static_cast<uint32_t>(size), parent);
  }
  auto place = moov.begin() + static_cast<ptrdiff_t>(table.offset);
  moov.insert(moov.erase(place, place + static_cast<ptrdiff_t>(table.size)), box.begin(), box.end());
}

/// Widens the first table that needs it; false where none does.
bool widenOne(Bytes& moov, const ChunkOffsetShift& shift) {
  for (size_t trak : findBoxes(moov, "trak", boxHeaderSize, moov.size())) {
    const auto table = findTable(moov, trak);
    if (!table) continue;
    const std::vector<uint64_t> offsets = offsetsIn(moov, *table);
    const bool isTooNarrow = std::ranges::any_of(offsets, [&](uint64_t offset) {
      return offset >= shift.movesFrom && needs64Bits(offset + static_cast<uint64_t>(shift.delta));
    });
    if (!isTooNarrow) continue;
    log("The chunk offsets of the track at {} of the moov get 64 bits", trak);
    replaceTable(moov, *table, buildChunkOffsetBox(offsets, true));
    return true;
  }
  return false;
}

}  // namespace

void widenChunkOffsets(Bytes& newMoov, const MP4BoxInfo& oldMoov, const MediaLayout& layout) {
  const auto shift = [&] {
    return layout.shift(oldMoov, static_cast<int64_t>(newMoov.size()) - static_cast<int64_t>(oldMoov.size));
  };
  // Each that is widened makes the `moov` longer, and the media move further.
  while (shift().delta > 0 && widenOne(newMoov, shift())) {
  }
}

}  // namespace tarn
