#include "mp4/MP4SampleTableParser.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

#include "mp4/ByteArray.h"
#include "mp4/DataExtensions.h"
#include "mp4/SampleTableBuilders.h"
#include "platform/Checked.h"
#include "platform/Log.h"

namespace tarn {
namespace {

/// Samples of one fixed size take no room in the file's tables, so nothing but this bounds the memory for them.
constexpr uint32_t mostFixedSizeSamples = 1 << 20;

/// The contents of one table box: its fixed fields, then its entries, read when they are asked for and only as many
/// as the counts promise.
class TableBox {
 public:
  /// Reads up to `fieldBytes` at the start of the contents, version and flags included.
  TableBox(FileHandle& file, const MP4BoxInfo& box, size_t fieldBytes) : file_(file), type_(box.type) {
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

  uint32_t field() { return cursor_->readUInt32(); }

  /// Reads `count` big-endian values, the next in the box.
  template <typename T>
  std::vector<T> entries(uint64_t count) {
    if (count > left_ / sizeof(T)) throw ByteArrayError::insufficientData();
    std::vector<T> values(count);
    std::span<uint8_t> memory(reinterpret_cast<uint8_t*>(values.data()), count * sizeof(T));
    if (readInto(memory) < memory.size()) throw ByteArrayError::insufficientData();
    for (size_t i = 0; i < count; ++i) {
      if constexpr (sizeof(T) == 8) {
        values[i] = loadUInt64(memory.subspan(i * 8).template first<8>());
      } else {
        values[i] = loadUInt32(memory.subspan(i * 4).template first<4>());
      }
    }
    return values;
  }

 private:
  size_t readInto(std::span<uint8_t> memory) {
    try {
      size_t count = file_.readInto(memory);
      left_ -= count;
      return count;
    } catch (const PosixError&) {
      throw unreadable();
    }
  }

  Error unreadable() const { return sampleTableError("Cannot read " + type_); }

  FileHandle& file_;
  std::string type_;
  uint64_t left_ = 0;  ///< bytes of the contents that the file holds and that were not read yet
  Bytes fields_;
  std::optional<ByteArray> cursor_;
};

constexpr size_t oneField = 8;  // version and flags, entry_count
constexpr size_t twoFields = 12;

MP4BoxInfo requireChild(FileHandle& file, const MP4BoxInfo& stbl, std::string_view type) {
  auto box = MP4BoxUtils::findChildBox(file, stbl, type);
  if (!box) throw sampleTableError(std::string(type) + " box not found");
  return *box;
}

std::vector<uint32_t> parseStsz(FileHandle& file, const MP4BoxInfo& stbl) {
  TableBox box(file, requireChild(file, stbl, "stsz"), twoFields);
  uint32_t fixedSize = box.field();
  uint32_t count = box.field();
  std::vector<uint32_t> sizes;
  if (fixedSize == 0) {
    sizes = box.entries<uint32_t>(count);
  } else {
    if (uint64_t{fixedSize} * count > file.seekToEnd()) {
      throw sampleTableError("stsz promises more bytes than the file holds");
    }
    if (count > mostFixedSizeSamples) throw sampleTableError("stsz promises too many samples of one size");
    sizes.assign(count, fixedSize);
  }
  log("Parsed stsz: {} samples", sizes.size());
  return sizes;
}

std::vector<SampleToChunkEntry> parseStsc(FileHandle& file, const MP4BoxInfo& stbl) {
  TableBox box(file, requireChild(file, stbl, "stsc"), oneField);
  auto values = box.entries<uint32_t>(uint64_t{box.field()} * 3);
  std::vector<SampleToChunkEntry> rows;
  rows.reserve(values.size() / 3);
  for (size_t i = 0; i < values.size(); i += 3) rows.push_back({values[i], values[i + 1], values[i + 2]});
  log("Parsed stsc: {} entries", rows.size());
  return rows;
}

std::vector<uint64_t> parseChunkOffsets(FileHandle& file, const MP4BoxInfo& stbl) {
  if (auto stco = MP4BoxUtils::findChildBox(file, stbl, "stco")) {
    TableBox box(file, *stco, oneField);
    auto offsets = box.entries<uint32_t>(box.field());
    log("Parsed stco: {} chunk offsets", offsets.size());
    return {offsets.begin(), offsets.end()};
  }
  if (auto co64 = MP4BoxUtils::findChildBox(file, stbl, "co64")) {
    TableBox box(file, *co64, oneField);
    auto offsets = box.entries<uint64_t>(box.field());
    log("Parsed co64: {} chunk offsets (64-bit)", offsets.size());
    return offsets;
  }
  throw sampleTableError("Neither stco nor co64 found");
}

std::vector<uint32_t> parseStss(FileHandle& file, const MP4BoxInfo& stbl) {
  auto stss = MP4BoxUtils::findChildBox(file, stbl, "stss");
  if (!stss) {
    log("No stss table - treating all samples as sync samples");
    return {};
  }
  TableBox box(file, *stss, oneField);
  auto numbers = box.entries<uint32_t>(box.field());
  std::ranges::sort(numbers);
  numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
  if (!numbers.empty() && numbers.front() == 0) throw sampleTableError("stss names sample 0");
  log("Parsed stss: {} sync samples", numbers.size());
  return numbers;
}

}  // namespace

void MP4SampleTableParser::parseSampleTable(FileHandle& file, const MP4BoxInfo& stbl) {
  log("Parsing sample table at offset {}...", stbl.offset);
  sampleSizes_ = parseStsz(file, stbl);
  sampleToChunk_ = parseStsc(file, stbl);
  chunkOffsets_ = parseChunkOffsets(file, stbl);
  syncSamples_ = parseStss(file, stbl);
  buildLookupTables();
  log("Parsed sample table: {} samples, {} sync samples, {} chunks", sampleSizes_.size(), syncSamples_.size(),
      chunkOffsets_.size());
}

void MP4SampleTableParser::buildLookupTables() {
  cumulativeSampleSizes_.reserve(sampleSizes_.size() + 1);
  cumulativeSampleSizes_.push_back(0);
  for (uint32_t size : sampleSizes_) cumulativeSampleSizes_.push_back(cumulativeSampleSizes_.back() + size);

  chunkStartSampleIndex_.reserve(chunkOffsets_.size());
  samplesInChunk_.reserve(chunkOffsets_.size());
  int64_t sample = 0;
  for (size_t row = 0; row < sampleToChunk_.size(); ++row) {
    uint64_t first = sampleToChunk_[row].firstChunk;
    bool isLast = row + 1 == sampleToChunk_.size();
    uint64_t next = isLast ? chunkOffsets_.size() + 1 : sampleToChunk_[row + 1].firstChunk;
    bool describesNothing = isLast && chunkStartSampleIndex_.size() == chunkOffsets_.size();
    if (next < first && !describesNothing) throw sampleTableError("stsc rows are out of order");
    for (uint64_t chunk = first; chunk < next && chunkStartSampleIndex_.size() < chunkOffsets_.size(); ++chunk) {
      int64_t count = sampleToChunk_[row].samplesPerChunk;
      chunkStartSampleIndex_.push_back(sample);
      samplesInChunk_.push_back(count);
      auto following = checkedAdd(sample, count);
      if (!following) throw sampleTableError("stsc promises too many samples");
      sample = *following;
    }
  }
}

uint64_t MP4SampleTableParser::sampleOffset(size_t index, size_t chunk) const {
  uint64_t ahead =
      cumulativeSampleSizes_[index] - cumulativeSampleSizes_[static_cast<size_t>(chunkStartSampleIndex_[chunk])];
  auto offset = checkedAdd(chunkOffsets_[chunk], ahead);
  if (!offset) throw sampleTableError("Sample offset out of range");
  return *offset;
}

bool MP4SampleTableParser::isSync(size_t index) const {
  return syncSamples_.empty() || std::ranges::binary_search(syncSamples_, index + 1);
}

/// The last chunk that begins at or ahead of a sample. Throws for a sample that does not exist.
std::optional<size_t> MP4SampleTableParser::chunkAtOrAhead(int64_t index) const {
  if (index < 0 || static_cast<uint64_t>(index) >= sampleSizes_.size()) {
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
  return {index, sampleOffset(sample, *chunk), sampleSizes_[sample], isSync(sample)};
}

std::vector<uint64_t> MP4SampleTableParser::sampleOffsets() const {
  if (!sampleSizes_.empty() && chunkStartSampleIndex_.empty()) sampleInfo(0);  // throws
  std::vector<uint64_t> offsets;
  offsets.reserve(sampleSizes_.size());
  size_t chunk = 0;
  for (size_t i = 0; i < sampleSizes_.size(); ++i) {
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
    samples.push_back({static_cast<int64_t>(i), offsets[i], sampleSizes_[i], isNamed || syncSamples_.empty()});
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
  for (const auto& row : sampleToChunk_) indices.insert(row.sampleDescriptionIndex);
  return indices;
}

std::optional<uint32_t> MP4SampleTableParser::sampleDescriptionIndex(int64_t index) const {
  auto chunk = chunkAtOrAhead(index);
  if (!chunk || index - chunkStartSampleIndex_[*chunk] >= samplesInChunk_[*chunk]) return std::nullopt;
  // Chunks are numbered as the rows are walked, whatever the first row's number.
  uint64_t number = uint64_t{sampleToChunk_.front().firstChunk} + *chunk;
  auto behind = std::ranges::upper_bound(sampleToChunk_, number, {}, &SampleToChunkEntry::firstChunk);
  return std::prev(behind)->sampleDescriptionIndex;
}

Bytes MP4SampleTableParser::rebuildStscBox(std::span<const SampleDescriptionSegment> segments) const {
  if (sampleSizes_.empty()) throw sampleTableError("No samples to rebuild stsc");
  log("Rebuilding stsc with 1 sample per chunk using {} segment ranges...", segments.size());
  std::vector<SampleToChunkEntry> rows;
  size_t current = 0;
  for (size_t i = 0; i < sampleSizes_.size(); ++i) {
    auto index = static_cast<int64_t>(i);
    while (current + 1 < segments.size() && segments[current].endSampleIndex < index) ++current;
    bool isInside = current < segments.size() && segments[current].startSampleIndex <= index &&
                    index <= segments[current].endSampleIndex;
    uint32_t description = isInside ? segments[current].descriptionIndex : 1;
    if (rows.empty() || rows.back().sampleDescriptionIndex != description) {
      rows.push_back({static_cast<uint32_t>(i + 1), 1, description});
    }
  }
  log("Generated {} stsc entries for {} samples", rows.size(), sampleSizes_.size());
  return buildStscBox(rows);
}

Bytes MP4SampleTableParser::rebuildChunkOffsetBox(const ChunkOffsetShift& comingShift) const {
  if (sampleSizes_.empty()) throw sampleTableError("No samples to rebuild chunk offsets");
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
