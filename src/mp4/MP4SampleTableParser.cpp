#include "mp4/MP4SampleTableParser.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <optional>
#include <string>
#include <utility>

#include "mp4/SampleTableBuilders.h"
#include "mp4/TableBox.h"
#include "mp4/detail/SampleTableReading.h"
#include "platform/Checked.h"
#include "platform/Log.h"

namespace tarn {
namespace {

/// A list with an element for each sample has at most this many: 77 hours of 60 pictures a second.
constexpr uint32_t mostListedSamples = 1 << 24;

SampleSizes parseStsz(FileHandle& file, const MP4BoxInfo& stbl) {
  const bool isCompact =
      !MP4BoxUtils::findChildBox(file, stbl, "stsz") && MP4BoxUtils::findChildBox(file, stbl, "stz2");
  SampleSizes read = isCompact ? readCompactSampleSizes(file, stbl) : readSampleSizes(file, stbl);
  const uint64_t fileSize = file.seekToEnd();
  if (read.fixedSize != 0 && uint64_t{read.fixedSize} * read.count > fileSize) {
    throw sampleTableError(fmt::format("stsz promises more bytes than the file holds: {} samples of {} bytes, of {}",
                                       read.count, read.fixedSize, fileSize));
  }
  log("Parsed stsz: {} samples", read.count);
  return read;
}

std::vector<SampleToChunkEntry> parseStsc(FileHandle& file, const MP4BoxInfo& stbl) {
  auto entries = readSampleToChunk(file, stbl);
  log("Parsed stsc: {} entries", entries.size());
  return entries;
}

std::vector<uint64_t> parseChunkOffsets(FileHandle& file, const MP4BoxInfo& stbl) {
  ChunkOffsets read = readChunkOffsets(file, stbl);
  if (read.isLong) {
    log("Parsed co64: {} chunk offsets (64-bit)", read.offsets.size());
  } else {
    log("Parsed stco: {} chunk offsets", read.offsets.size());
  }
  return std::move(read.offsets);
}

std::vector<uint32_t> parseStss(FileHandle& file, const MP4BoxInfo& stbl, uint32_t sampleCount) {
  auto stss = MP4BoxUtils::findChildBox(file, stbl, "stss");
  if (!stss) {
    log("No stss table - treating all samples as sync samples");
    return {};
  }
  TableBox box(file, *stss, TableBox::oneField);
  auto numbers = box.entries<uint32_t>(box.field());
  std::ranges::sort(numbers);
  numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
  if (!numbers.empty() && numbers.front() == 0) throw sampleTableError("stss names sample 0");
  auto behind = std::ranges::upper_bound(numbers, sampleCount);
  if (behind != numbers.end()) {
    log("Skipping {} numbers of the stss that lie behind the last sample, {}", numbers.end() - behind, sampleCount);
    numbers.erase(behind, numbers.end());
  }
  log("Parsed stss: {} sync samples", numbers.size());
  return numbers;
}

}  // namespace

void MP4SampleTableParser::parseSampleTable(FileHandle& file, const MP4BoxInfo& stbl) {
  log("Parsing sample table at offset {}...", stbl.offset);
  SampleSizes sizes = parseStsz(file, stbl);
  sampleCount_ = sizes.count;
  fixedSize_ = sizes.fixedSize;
  sampleSizes_ = std::move(sizes.sizes);
  sampleToChunk_ = parseStsc(file, stbl);
  chunkOffsets_ = parseChunkOffsets(file, stbl);
  syncSamples_ = parseStss(file, stbl, sampleCount());
  buildLookupTables();
  log("Parsed sample table: {} samples, {} sync samples, {} chunks", sampleCount(), syncSamples_.size(),
      chunkOffsets_.size());
}

void MP4SampleTableParser::buildLookupTables() {
  if (fixedSize_ == 0) {
    cumulativeSampleSizes_.reserve(sampleSizes_.size() + 1);
    cumulativeSampleSizes_.push_back(0);
    for (uint32_t size : sampleSizes_) cumulativeSampleSizes_.push_back(cumulativeSampleSizes_.back() + size);
  }

  chunkStartSampleIndex_.reserve(chunkOffsets_.size());
  samplesInChunk_.reserve(chunkOffsets_.size());
  for (const ChunkRun& run : chunkRuns(sampleToChunk_, chunkOffsets_.size())) {
    for (uint64_t chunk = 0; chunk < run.chunkCount; ++chunk) {
      chunkStartSampleIndex_.push_back(run.firstSample + static_cast<int64_t>(chunk) * run.samplesPerChunk);
      samplesInChunk_.push_back(run.samplesPerChunk);
    }
  }
}

uint64_t MP4SampleTableParser::sampleOffset(size_t index, size_t chunk) const {
  uint64_t ahead = sizeOfFirst(index) - sizeOfFirst(static_cast<size_t>(chunkStartSampleIndex_[chunk]));
  auto offset = checkedAdd(chunkOffsets_[chunk], ahead);
  if (!offset) throw sampleTableError("Sample offset out of range");
  return *offset;
}

bool MP4SampleTableParser::isSync(size_t index) const {
  return syncSamples_.empty() || std::ranges::binary_search(syncSamples_, index + 1);
}

/// The last chunk that begins at or before a sample. Throws for a sample that does not exist.
std::optional<size_t> MP4SampleTableParser::chunkAtOrAhead(int64_t index) const {
  if (index < 0 || index >= sampleCount()) {
    throw sampleTableError("Sample index out of range");
  }
  auto behind = std::ranges::upper_bound(chunkStartSampleIndex_, index);
  if (behind == chunkStartSampleIndex_.begin()) return std::nullopt;
  return static_cast<size_t>(behind - chunkStartSampleIndex_.begin()) - 1;
}

SampleInfo MP4SampleTableParser::sampleInfo(int64_t index) const {
  auto chunk = chunkAtOrAhead(index);
  if (!chunk) throw sampleTableError("Could not compute offset for sample " + std::to_string(index));
  auto sample = static_cast<size_t>(index);
  return {index, sampleOffset(sample, *chunk), sampleSize(sample), isSync(sample)};
}

std::vector<uint64_t> MP4SampleTableParser::sampleOffsets() const {
  if (sampleCount() > 0 && chunkStartSampleIndex_.empty()) sampleInfo(0);  // throws
  if (sampleCount() > mostListedSamples) {
    throw sampleTableError(
        fmt::format("stsz promises {} samples, of which {} can be listed", sampleCount(), mostListedSamples));
  }
  std::vector<uint64_t> offsets;
  offsets.reserve(sampleCount());
  size_t chunk = 0;
  for (size_t i = 0; i < sampleCount(); ++i) {
    auto index = static_cast<int64_t>(i);
    while (chunk + 1 < chunkStartSampleIndex_.size() && chunkStartSampleIndex_[chunk + 1] <= index) ++chunk;
    offsets.push_back(sampleOffset(i, chunk));
  }
  return offsets;
}

std::vector<SampleInfo> MP4SampleTableParser::allSamples() const {
  auto offsets = sampleOffsets();
  std::vector<SampleInfo> samples;
  samples.reserve(offsets.size());
  auto nextSync = syncSamples_.begin();
  for (size_t i = 0; i < offsets.size(); ++i) {
    bool isNamed = nextSync != syncSamples_.end() && *nextSync == i + 1;
    if (isNamed) ++nextSync;
    samples.push_back({static_cast<int64_t>(i), offsets[i], sampleSize(i), isNamed || syncSamples_.empty()});
  }
  return samples;
}

std::vector<SampleInfo> MP4SampleTableParser::syncSamplesOnly() const {
  if (syncSamples_.empty()) return allSamples();
  std::vector<SampleInfo> samples;
  samples.reserve(syncSamples_.size());
  for (uint32_t number : syncSamples_) samples.push_back(sampleInfo(int64_t{number} - 1));
  return samples;
}

std::set<uint32_t> MP4SampleTableParser::usedSampleDescriptionIndices() const {
  std::set<uint32_t> indices;
  for (const auto& entry : sampleToChunk_) indices.insert(entry.sampleDescriptionIndex);
  return indices;
}

std::optional<uint32_t> MP4SampleTableParser::sampleDescriptionIndex(int64_t index) const {
  auto chunk = chunkAtOrAhead(index);
  if (!chunk || index - chunkStartSampleIndex_[*chunk] >= samplesInChunk_[*chunk]) return std::nullopt;
  // Chunks are numbered as the entries are walked, whatever the first entry's number.
  uint64_t number = uint64_t{sampleToChunk_.front().firstChunk} + *chunk;
  auto behind = std::ranges::upper_bound(sampleToChunk_, number, {}, &SampleToChunkEntry::firstChunk);
  return std::prev(behind)->sampleDescriptionIndex;
}

Bytes MP4SampleTableParser::rebuildStscBox(std::span<const SampleDescriptionSegment> segments) const {
  if (sampleCount() == 0) throw sampleTableError("No samples to rebuild stsc");
  log("Rebuilding stsc with 1 sample per chunk using {} segment ranges...", segments.size());
  std::vector<SampleToChunkEntry> entries;
  size_t current = 0;
  for (size_t i = 0; i < sampleCount(); ++i) {
    auto index = static_cast<int64_t>(i);
    while (current + 1 < segments.size() && segments[current].endSampleIndex < index) ++current;
    bool isInside = current < segments.size() && segments[current].startSampleIndex <= index &&
                    index <= segments[current].endSampleIndex;
    uint32_t description = isInside ? segments[current].descriptionIndex : 1;
    if (entries.empty() || entries.back().sampleDescriptionIndex != description) {
      entries.push_back({static_cast<uint32_t>(i + 1), 1, description});
    }
  }
  log("Generated {} stsc entries for {} samples", entries.size(), sampleCount());
  return buildStscBox(entries);
}

Bytes MP4SampleTableParser::rebuildChunkOffsetBox(const ChunkOffsetShift& comingShift) const {
  if (sampleCount() == 0) throw sampleTableError("No samples to rebuild chunk offsets");
  log("Rebuilding chunk offset table with 1 sample per chunk...");
  auto offsets = sampleOffsets();
  bool isLong = std::ranges::any_of(offsets, [&](uint64_t offset) {
    if (needs64Bits(offset) || offset < comingShift.movesFrom) return needs64Bits(offset);
    return static_cast<int64_t>(offset) + comingShift.delta > int64_t{std::numeric_limits<uint32_t>::max()};
  });
  log("Generated {} chunk offsets, need co64: {}", offsets.size(), isLong);
  return buildChunkOffsetBox(offsets, isLong);
}

}  // namespace tarn
