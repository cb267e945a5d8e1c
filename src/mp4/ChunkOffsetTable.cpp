#include "mp4/ChunkOffsetTable.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <optional>
#include <vector>

#include "mp4/BoxLayout.h"
#include "mp4/BoxWalker.h"
#include "mp4/DataExtensions.h"
#include "mp4/SampleTableBuilders.h"
#include "platform/Log.h"

namespace tarn {
namespace {

constexpr size_t entriesInBox = layout::tableHeaderSize;

/// The entries of a table that are there.
class Entries {
 public:
  Entries(std::span<uint8_t> data, size_t at, bool is64Bit) : is64Bit_(is64Bit) {
    if (at > data.size() || data.size() - at < entriesInBox) return;
    size_t boxSize = std::min<size_t>(*readUInt32(data, at), data.size() - at);
    if (boxSize < entriesInBox) return;
    count_ = std::min<size_t>(*readUInt32(data, at + layout::entryCount.offset), (boxSize - entriesInBox) / width());
    entries_ = data.subspan(at + entriesInBox, count_ * width());
  }

  size_t count() const { return count_; }
  uint64_t get(size_t i) const {
    return is64Bit_ ? *readUInt64(entries_, i * width()) : *readUInt32(entries_, i * width());
  }
  /// Writes as many low bits as an entry holds.
  void set(size_t i, uint64_t value) {
    if (is64Bit_) {
      writeUInt64(entries_, value, i * width());
    } else {
      writeUInt32(entries_, static_cast<uint32_t>(value), i * width());
    }
  }

 private:
  size_t width() const { return is64Bit_ ? 8 : 4; }

  bool is64Bit_;
  size_t count_ = 0;
  std::span<uint8_t> entries_;
};

/// `value` + `delta`, clamped to 32 bits. Neither side comes near the 64-bit range: a delta is the difference of two
/// lengths in memory.
uint32_t shifted32(uint32_t value, int64_t delta, size_t entry) {
  int64_t sum = int64_t{value} + delta;
  int64_t clamped = std::clamp<int64_t>(sum, 0, std::numeric_limits<uint32_t>::max());
  if (clamped != sum) {
    log("WARNING: stco offset overflow at entry {}: {} + {} = {}, clamping", entry, value, delta, sum);
  }
  return static_cast<uint32_t>(clamped);
}

/// The same table with 64-bit entries.
Bytes promoted(ByteView table, std::span<const uint64_t> offsets) {
  size_t size = entriesInBox + 8 * offsets.size();
  Bytes box;
  box.reserve(size);
  ByteWriter writer(box);
  writer.uint32(static_cast<uint32_t>(size))
      .text("co64")
      .bytes(table.subspan(layout::boxHeaderSize, entriesInBox - layout::boxHeaderSize));
  for (uint64_t offset : offsets) writer.uint64(offset);
  return box;
}

}  // namespace

std::optional<uint64_t> newPlace(uint64_t offset, std::span<const MediaMove> moves) {
  auto behind = std::ranges::upper_bound(moves, offset, {}, &MediaMove::begin);
  if (behind == moves.begin()) return std::nullopt;
  const MediaMove& move = *std::prev(behind);
  if (offset > move.end) return std::nullopt;
  return move.newBegin + (offset - move.begin);
}

void ChunkOffsetTable::adjustAllInMoov(std::span<uint8_t> moov, const ChunkOffsetShift& shift) {
  if (shift.delta == 0) return;
  BufferBoxWalker walker(moov, 0, moov.size(), boxwalk::openDeep);
  while (auto box = walker.next()) {
    bool is64Bit = box->type == "co64";
    if (is64Bit || box->type == "stco") adjustTableInPlace(moov, static_cast<size_t>(box->offset), shift, is64Bit);
  }
}

void ChunkOffsetTable::adjustTableInPlace(std::span<uint8_t> moov, size_t at, const ChunkOffsetShift& shift,
                                          bool is64Bit) {
  Entries entries(moov, at, is64Bit);
  for (size_t i = 0; i < entries.count(); ++i) {
    uint64_t old = entries.get(i);
    if (old < shift.movesFrom) continue;
    entries.set(
        i, is64Bit ? old + static_cast<uint64_t>(shift.delta) : shifted32(static_cast<uint32_t>(old), shift.delta, i));
  }
}

std::optional<ChunkOffsetTable::Moved> ChunkOffsetTable::moved(ByteView table, std::span<const MediaMove> moves) {
  Moved result{{table.begin(), table.end()}};
  bool is64Bit = layout::loadWithin(table, layout::boxType) == layout::fourCC("co64");
  Entries entries(result.box, 0, is64Bit);
  std::vector<uint64_t> offsets;
  offsets.reserve(entries.count());
  for (size_t i = 0; i < entries.count(); ++i) {
    auto offset = newPlace(entries.get(i), moves);
    if (!offset) return std::nullopt;
    offsets.push_back(*offset);
    entries.set(i, *offset);
  }
  result.isPromoted = !is64Bit && std::ranges::any_of(offsets, needs64Bits);
  if (result.isPromoted) result.box = promoted(table, offsets);
  return result;
}

}  // namespace tarn
