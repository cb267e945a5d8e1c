#include "mp4/ChunkOffsetTable.h"

#include <algorithm>
#include <limits>
#include <optional>

#include "mp4/DataExtensions.h"
#include "mp4/MP4BoxUtils.h"
#include "platform/Log.h"

namespace tarn {
namespace {

constexpr size_t countInBox = 12;
constexpr size_t entriesInBox = 16;

/// `value` + `delta`, clamped to 32 bits. Neither side comes near the 64-bit range: a delta is the difference of two
/// lengths in memory.
uint32_t shifted32(uint32_t value, int64_t delta, size_t entry) {
  int64_t sum = int64_t{value} + delta;
  int64_t clamped = std::clamp<int64_t>(sum, 0, std::numeric_limits<uint32_t>::max());
  if (clamped != sum)
    log("WARNING: stco offset overflow at entry {}: {} + {} = {}, clamping", entry, value, delta, sum);
  return static_cast<uint32_t>(clamped);
}

}  // namespace

void ChunkOffsetTable::adjustAllInMoov(std::span<uint8_t> moov, const ChunkOffsetShift& shift) {
  if (shift.delta == 0) return;
  for (size_t at : MP4BoxUtils::findBoxOffsets(moov, "stco", 0, std::nullopt, true)) {
    adjustTableInPlace(moov, at, shift, false);
  }
  for (size_t at : MP4BoxUtils::findBoxOffsets(moov, "co64", 0, std::nullopt, true)) {
    adjustTableInPlace(moov, at, shift, true);
  }
}

void ChunkOffsetTable::adjustTableInPlace(std::span<uint8_t> moov, size_t at, const ChunkOffsetShift& shift,
                                          bool is64Bit) {
  if (at > moov.size() || moov.size() - at < entriesInBox) return;
  size_t boxSize = std::min<size_t>(*readUInt32(moov, at), moov.size() - at);
  if (boxSize < entriesInBox) return;
  size_t width = is64Bit ? 8 : 4;
  size_t count = std::min<size_t>(*readUInt32(moov, at + countInBox), (boxSize - entriesInBox) / width);
  for (size_t i = 0; i < count; ++i) {
    size_t position = at + entriesInBox + i * width;
    uint64_t old = is64Bit ? *readUInt64(moov, position) : *readUInt32(moov, position);
    if (old < shift.movesFrom) continue;
    if (is64Bit) {
      writeUInt64(moov, old + static_cast<uint64_t>(shift.delta), position);
    } else {
      writeUInt32(moov, shifted32(static_cast<uint32_t>(old), shift.delta, i), position);
    }
  }
}

}  // namespace tarn
