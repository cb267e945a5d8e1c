#include "mp4/detail/SampleTableReading.h"

#include <algorithm>
#include <limits>
#include <string>

#include "mp4/SampleTableBuilders.h"
#include "mp4/TableBox.h"
#include "platform/Checked.h"

namespace tarn {

SampleSizes readSampleSizes(FileHandle& file, const MP4BoxInfo& stbl) {
  TableBox box(file, requireTableBox(file, stbl, "stsz"), TableBox::twoFields);
  SampleSizes result;
  result.fixedSize = box.field();
  result.count = box.field();
  if (result.fixedSize == 0) result.sizes = box.entries<uint32_t>(result.count);
  return result;
}

SampleSizes readCompactSampleSizes(FileHandle& file, const MP4BoxInfo& stbl) {
  TableBox box(file, requireTableBox(file, stbl, "stz2"), TableBox::twoFields);
  uint32_t bits = box.field() & 0xFF;
  if (bits != 4 && bits != 8 && bits != 16)
    throw sampleTableError("stz2 has sizes of " + std::to_string(bits) + " bits");
  SampleSizes result;
  result.count = box.field();
  auto bytes = box.entries<uint8_t>((uint64_t{result.count} * bits + 7) / 8);
  result.sizes.reserve(result.count);
  for (size_t i = 0; i < result.count; ++i) {
    if (bits == 16) {
      result.sizes.push_back(uint32_t{bytes[2 * i]} << 8 | bytes[2 * i + 1]);
    } else if (bits == 8) {
      result.sizes.push_back(bytes[i]);
    } else {
      result.sizes.push_back(i % 2 == 0 ? bytes[i / 2] >> 4 : bytes[i / 2] & 0xF);
    }
  }
  return result;
}

std::vector<SampleToChunkEntry> readSampleToChunk(FileHandle& file, const MP4BoxInfo& stbl) {
  TableBox box(file, requireTableBox(file, stbl, "stsc"), TableBox::oneField);
  auto values = box.entries<uint32_t>(uint64_t{box.field()} * 3);
  std::vector<SampleToChunkEntry> entries;
  entries.reserve(values.size() / 3);
  for (size_t i = 0; i < values.size(); i += 3) entries.push_back({values[i], values[i + 1], values[i + 2]});
  return entries;
}

ChunkOffsets readChunkOffsets(FileHandle& file, const MP4BoxInfo& stbl) {
  if (auto stco = MP4BoxUtils::findChildBox(file, stbl, "stco")) {
    TableBox box(file, *stco, TableBox::oneField);
    auto offsets = box.entries<uint32_t>(box.field());
    return {false, {offsets.begin(), offsets.end()}};
  }
  if (auto co64 = MP4BoxUtils::findChildBox(file, stbl, "co64")) {
    TableBox box(file, *co64, TableBox::oneField);
    return {true, box.entries<uint64_t>(box.field())};
  }
  throw sampleTableError("Neither stco nor co64 found");
}

namespace {

Error outOfOrder(size_t entry, uint64_t first, uint64_t next) {
  return sampleTableError("stsc entries are out of order: entry " + std::to_string(entry + 1) + " begins at chunk " +
                          std::to_string(first) + " and what follows it at chunk " + std::to_string(next));
}

}  // namespace

std::vector<ChunkRun> chunkRuns(std::span<const SampleToChunkEntry> entries, uint64_t chunkCount) {
  std::vector<ChunkRun> runs;
  uint64_t chunk = 0;
  int64_t sample = 0;
  for (size_t entry = 0; entry < entries.size(); ++entry) {
    uint64_t first = entries[entry].firstChunk;
    bool isLast = entry + 1 == entries.size();
    uint64_t next = isLast ? chunkCount + 1 : entries[entry + 1].firstChunk;
    bool describesNothing = isLast && chunk == chunkCount;
    if (next < first && !describesNothing) throw outOfOrder(entry, first, next);
    uint64_t chunks = next < first ? 0 : std::min(next - first, chunkCount - chunk);
    if (chunks == 0) continue;
    runs.push_back({chunk, chunks, sample, entries[entry].samplesPerChunk, entries[entry].sampleDescriptionIndex});
    auto samples = checkedMultiply(static_cast<int64_t>(chunks), int64_t{entries[entry].samplesPerChunk});
    auto following = samples ? checkedAdd(sample, *samples) : std::nullopt;
    if (!following) throw sampleTableError("stsc promises too many samples");
    sample = *following;
    chunk += chunks;
  }
  return runs;
}

}  // namespace tarn
