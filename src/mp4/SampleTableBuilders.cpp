#include "mp4/SampleTableBuilders.h"

#include <algorithm>
#include <functional>
#include <limits>
#include <string_view>
#include <utility>

#include "mp4/BoxLayout.h"
#include "mp4/DataExtensions.h"

namespace tarn {
namespace {

constexpr uint64_t uint32Max = std::numeric_limits<uint32_t>::max();

/// A box of some fixed 32-bit fields and a table, the header written and the memory taken.
Bytes beginBox(std::string_view type, uint64_t fields, uint64_t entries, uint64_t entrySize) {
  uint64_t fixed = layout::fullBoxHeaderSize + 4 * fields;
  if (entries > (uint32Max - fixed) / entrySize) {
    throw sampleTableError(std::string(type) + " of " + std::to_string(entries) + " entries does not fit a box");
  }
  uint64_t size = fixed + entries * entrySize;
  Bytes box;
  box.reserve(size);
  ByteWriter(box).uint32(static_cast<uint32_t>(size)).text(type).uint32(0);
  return box;
}

}  // namespace

Error sampleTableError(std::string description) {
  return {"SampleTable", -1, std::move(description)};
}

Bytes buildStszBox(std::span<const uint32_t> sampleSizes) {
  bool isCompact =
      !sampleSizes.empty() && std::ranges::adjacent_find(sampleSizes, std::not_equal_to()) == sampleSizes.end();
  Bytes box = beginBox("stsz", 2, isCompact ? 0 : sampleSizes.size(), 4);
  ByteWriter writer(box);
  writer.uint32(isCompact ? sampleSizes.front() : 0).uint32(static_cast<uint32_t>(sampleSizes.size()));
  if (!isCompact) {
    for (uint32_t size : sampleSizes) writer.uint32(size);
  }
  return box;
}

Bytes buildSttsBox(std::span<const TimeToSampleEntry> entries) {
  Bytes box = beginBox("stts", 1, entries.size(), layout::runEntrySize);
  ByteWriter writer(box);
  writer.uint32(static_cast<uint32_t>(entries.size()));
  for (const TimeToSampleEntry& entry : entries) writer.uint32(entry.sampleCount).uint32(entry.sampleDelta);
  return box;
}

Bytes buildSimpleSttsBox(uint32_t sampleCount, uint32_t sampleDuration) {
  const TimeToSampleEntry entry{sampleCount, sampleDuration};
  return buildSttsBox({&entry, 1});
}

Bytes buildSimpleStscBox() {
  SampleToChunkEntry entry{.firstChunk = 1, .samplesPerChunk = 1, .sampleDescriptionIndex = 1};
  return buildStscBox({&entry, 1});
}

Bytes buildStscBox(std::span<const SampleToChunkEntry> entries) {
  Bytes box = beginBox("stsc", 1, entries.size(), 12);
  ByteWriter writer(box);
  writer.uint32(static_cast<uint32_t>(entries.size()));
  for (const auto& entry : entries) {
    writer.uint32(entry.firstChunk).uint32(entry.samplesPerChunk).uint32(entry.sampleDescriptionIndex);
  }
  return box;
}

Bytes buildChunkOffsetBox(std::span<const uint64_t> offsets) {
  return buildChunkOffsetBox(offsets, std::ranges::any_of(offsets, needs64Bits));
}

Bytes buildChunkOffsetBox(std::span<const uint64_t> offsets, bool isLong) {
  Bytes box = isLong ? beginBox("co64", 1, offsets.size(), 8) : beginBox("stco", 1, offsets.size(), 4);
  ByteWriter writer(box);
  writer.uint32(static_cast<uint32_t>(offsets.size()));
  for (uint64_t offset : offsets) {
    if (isLong) {
      writer.uint64(offset);
    } else {
      writer.uint32(static_cast<uint32_t>(offset));
    }
  }
  return box;
}

}  // namespace tarn
