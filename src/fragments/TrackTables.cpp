#include "fragments/TrackTables.h"

#include <fmt/format.h>

#include <limits>
#include <string>
#include <string_view>
#include <utility>

#include "fragments/detail/OtherTables.h"
#include "fragments/detail/TableBoxes.h"
#include "movie/MovieError.h"
#include "mp4/BoxLayout.h"
#include "mp4/DataExtensions.h"
#include "mp4/SampleLocations.h"
#include "mp4/SampleTableBuilders.h"
#include "platform/Checked.h"

namespace tarn {
namespace {

using Case = MovieError::Case;

constexpr uint64_t mostSamples = std::numeric_limits<uint32_t>::max();
/// A list with an element for each sample has at most so many: 77 hours of 60 pictures a second.
constexpr uint64_t mostListedSamples = 1 << 24;
/// Times beyond it are no times: sums of them must not overflow.
constexpr uint64_t latestTime = uint64_t{1} << 60;

/// A box of a table: version and flags, then fields of 32 bits, then entries.
class Table {
 public:
  explicit Table(const MovieBox& box) : type_(box.type), contents_(box.contents) {}

  uint8_t version() const { return static_cast<uint8_t>(word(0) >> 24); }
  ByteView contents() const { return contents_; }

  /// The 32-bit value of this index; version and flags are 0.
  uint32_t word(uint64_t index) const {
    const auto value = readUInt32(contents_, index * sizeof(uint32_t));
    if (!value) throw MovieError::damaged(fmt::format("The {} ends before its fields", type_));
    return *value;
  }

  /// Holds a count against the bytes that follow so many words.
  void require(uint64_t entries, uint64_t bits, uint64_t words) const {
    const uint64_t fixed = words * sizeof(uint32_t);
    const uint64_t left = contents_.size() > fixed ? contents_.size() - fixed : 0;
    if (entries > mostSamples || (entries * bits + 7) / 8 > left) {
      throw MovieError::damaged(fmt::format("The {} promises {} entries and holds {} bytes", type_, entries, left));
    }
  }

  /// The number of entries of so many words after a count.
  uint32_t entryCount(uint64_t wordsEach) const {
    require(word(1), wordsEach * 32, 2);
    return word(1);
  }

 private:
  std::string_view type_;
  ByteView contents_;
};

const MovieBox& child(const MovieBox& stbl, std::string_view type) {
  const MovieBox* box = stbl.find({type});
  if (!box) throw MovieError::damaged(fmt::format("A sample table has no {}", type));
  return *box;
}

/// The values of an `stts` or `ctts` up to a sample.
template <typename T>
Runs<T> readRuns(const Table& table, uint64_t samples) {
  Runs<T> runs;
  const uint64_t end = 2 + uint64_t{table.entryCount(2)} * 2;
  for (uint64_t word = 2; word < end && runs.size() < samples; word += 2) {
    const uint32_t count = table.word(word);
    if (count > 0) runs.append(static_cast<T>(table.word(word + 1)), count);
  }
  runs.truncate(samples);
  return runs;
}

/// Puts a box in the place of those of either type, or removes them.
void place(MovieBox& stbl, std::string_view type, std::string_view otherType, std::optional<MovieBox> box) {
  stbl.replaceAll([&](const MovieBox& old) { return old.type == type || old.type == otherType; }, std::move(box));
}

bool isOtherThanZero(const auto& run) {
  return run.value != 0;
}

}  // namespace

TrackTables TrackTables::read(const MovieBox& stbl) {
  TrackTables tables;
  tables.readSizes(stbl);
  tables.readChunks(stbl);
  tables.readTimes(stbl);
  tables.readFlags(stbl);
  tables.groups_.read(stbl, tables.sampleCount());
  return tables;
}

void TrackTables::readSizes(const MovieBox& stbl) {
  if (const MovieBox* stsz = stbl.find({"stsz"})) {
    const Table table(*stsz);
    const uint32_t count = table.word(2);
    if (const uint32_t size = table.word(1)) return sizes_.append(size, count);
    table.require(count, 32, 3);
    for (uint64_t i = 0; i < count; ++i) sizes_.append(table.word(3 + i));
    return;
  }
  const Table table(child(stbl, "stz2"));
  compactBits_ = table.word(1) & 0xFF;
  if (compactBits_ != 4 && compactBits_ != 8 && compactBits_ != 16) {
    throw MovieError::damaged(fmt::format("The stz2 has sizes of {} bits", compactBits_));
  }
  const uint32_t count = table.word(2);
  table.require(count, compactBits_, 3);
  const ByteView packed = table.contents().subspan(3 * sizeof(uint32_t));
  for (size_t i = 0; i < count; ++i) {
    if (compactBits_ == 16) {
      sizes_.append(uint32_t{packed[2 * i]} << 8 | packed[2 * i + 1]);
    } else if (compactBits_ == 8) {
      sizes_.append(packed[i]);
    } else {
      sizes_.append(i % 2 == 0 ? packed[i / 2] >> 4 : packed[i / 2] & 0xF);
    }
  }
}

void TrackTables::readChunks(const MovieBox& stbl) {
  const Table stsc(child(stbl, "stsc"));
  std::vector<SampleToChunkEntry> entries(stsc.entryCount(3));
  for (size_t i = 0; i < entries.size(); ++i) {
    entries[i] = {stsc.word(2 + 3 * i), stsc.word(3 + 3 * i), stsc.word(4 + 3 * i)};
  }
  const bool isLong = !stbl.find({"stco"});
  const Table places(child(stbl, isLong ? "co64" : "stco"));
  const uint32_t chunks = places.entryCount(isLong ? 2 : 1);
  std::vector<ChunkRun> runs;
  try {
    runs = chunkRuns(entries, chunks);
  } catch (const Error& error) {
    throw MovieError::damaged(error.description());
  }
  uint64_t left = sizes_.size();
  for (const ChunkRun& run : runs) {
    for (uint64_t chunk = run.firstChunk; chunk < run.firstChunk + run.chunkCount && left > 0; ++chunk) {
      if (run.samplesPerChunk == 0) break;
      const auto samples = static_cast<uint32_t>(std::min<uint64_t>(left, run.samplesPerChunk));
      chunkKinds_.append({samples, run.sampleDescriptionIndex});
      chunkOffsets_.push_back(isLong ? uint64_t{places.word(2 + 2 * chunk)} << 32 | places.word(3 + 2 * chunk)
                                     : places.word(2 + chunk));
      left -= samples;
    }
  }
  sizes_.truncate(sizes_.size() - left);
}

void TrackTables::readTimes(const MovieBox& stbl) {
  const uint64_t samples = sizes_.size();
  durations_ = readRuns<uint32_t>(Table(child(stbl, "stts")), samples);
  if (durations_.isEmpty() && samples > 0) throw MovieError::damaged("The stts names no sample");
  if (samples > 0) durations_.resize(samples, durations_.last());
  if (const MovieBox* ctts = stbl.find({"ctts"})) {
    const Table table(*ctts);
    offsetVersion_ = table.version();
    offsets_ = readRuns<int32_t>(table, samples);
  }
  offsets_.resize(samples, 0);
  if (duration() > latestTime) throw MovieError::damaged("The durations of an stts add up to an impossible time");
}

void TrackTables::readFlags(const MovieBox& stbl) {
  const uint64_t samples = sizes_.size();
  if (const MovieBox* stss = stbl.find({"stss"})) {
    const Table table(*stss);
    std::vector<uint32_t> numbers(table.entryCount(1));
    for (size_t i = 0; i < numbers.size(); ++i) numbers[i] = table.word(2 + i);
    std::ranges::sort(numbers);
    for (const uint32_t number : numbers) {
      if (number == 0 || number > samples || number <= syncs_.size()) continue;  // no such sample, or named twice
      syncs_.resize(number - 1, false);
      syncs_.append(true);
    }
    syncs_.resize(samples, false);
  } else {
    syncs_.resize(samples, true);
  }
  if (const MovieBox* sdtp = stbl.find({"sdtp"})) {
    const ByteView contents = Table(*sdtp).contents();
    for (size_t i = sizeof(uint32_t); i < contents.size() && dependencies_.size() < samples; ++i) {
      dependencies_.append(contents[i]);
    }
  }
  dependencies_.resize(samples, 0);
}

void TrackTables::append(const TrackSample& sample) {
  using Offset = std::numeric_limits<int32_t>;
  if (sample.compositionOffset < Offset::min() || sample.compositionOffset > Offset::max()) {
    throw MovieError(Case::doesNotFit, "A composition offset does not fit its field");
  }
  if (sampleCount() == mostSamples) throw MovieError(Case::doesNotFit, "A track has too many samples");
  if (!nextInChunk_) nextInChunk_ = endOfLastChunk();
  const auto end = checkedAdd<uint64_t>(sample.offset, sample.size);
  if (!end) throw MovieError(Case::doesNotFit, "A sample lies out of range");

  durations_.append(sample.duration);
  offsets_.append(static_cast<int32_t>(sample.compositionOffset));
  if (sample.compositionOffset < 0) offsetVersion_ = 1;
  sizes_.append(sample.size);
  syncs_.append(sample.isSync);
  dependencies_.append(sample.dependencies);

  const bool joins =
      !chunkOffsets_.empty() && nextInChunk_ == sample.offset && chunkKinds_.last().description == sample.description;
  if (joins) {
    const ChunkKind old = chunkKinds_.last();
    chunkKinds_.truncate(chunkKinds_.size() - 1);
    chunkKinds_.append({old.samples + 1, old.description});
  } else {
    chunkOffsets_.push_back(sample.offset);
    chunkKinds_.append({1, sample.description});
  }
  nextInChunk_ = end;
}

void TrackTables::appendGroups(uint64_t firstSample, ByteView sbgp, std::optional<ByteView> sgpd) {
  groups_.append(firstSample, sbgp, sgpd);
  groups_.truncate(sampleCount());
}

void TrackTables::truncate(uint64_t samples) {
  while (!chunkOffsets_.empty() && sampleCount() > samples) {
    const ChunkKind kind = chunkKinds_.last();
    const uint64_t gone = std::min<uint64_t>(sampleCount() - samples, kind.samples);
    chunkKinds_.truncate(chunkKinds_.size() - 1);
    if (gone == kind.samples) {
      chunkOffsets_.pop_back();
    } else {
      chunkKinds_.append({kind.samples - static_cast<uint32_t>(gone), kind.description});
    }
    durations_.truncate(sampleCount() - gone);
  }
  offsets_.truncate(samples);
  sizes_.truncate(samples);
  syncs_.truncate(samples);
  dependencies_.truncate(samples);
  groups_.truncate(samples);
  nextInChunk_.reset();
}

void TrackTables::setLastDuration(uint32_t ticks) {
  durations_.truncate(sampleCount() - 1);
  durations_.append(ticks);
}

uint64_t TrackTables::decodeTime(uint64_t sample) const {
  uint64_t time = 0;
  for (const auto& run : durations_) {
    const uint64_t taken = std::min<uint64_t>(sample, run.count);
    time += taken * run.value;
    sample -= taken;
  }
  return time;
}

uint64_t TrackTables::samplesDecodedAhead(uint64_t time) const {
  uint64_t samples = 0;
  for (const auto& run : durations_) {
    const uint64_t length = uint64_t{run.count} * run.value;
    if (length >= time && run.value > 0) return samples + (time + run.value - 1) / run.value;
    if (time == 0) break;
    samples += run.count;
    time -= length;
  }
  return samples;
}

TrackTables::Composition TrackTables::composition() const {
  if (sampleCount() == 0) return {};
  constexpr auto never = std::numeric_limits<int64_t>::max();
  Composition result{never, -never};
  int64_t time = 0;
  auto offset = offsets_.begin();
  uint32_t used = 0;
  for (const auto& run : durations_) {
    for (uint32_t left = run.count; left > 0;) {
      const uint32_t taken = std::min(left, offset->count - used);
      const int64_t length = int64_t{taken} * run.value;
      result.start = std::min(result.start, time + offset->value);
      result.end = std::max(result.end, time + length + offset->value);
      time += length;
      left -= taken;
      used += taken;
      if (used == offset->count) {
        ++offset;
        used = 0;
      }
    }
  }
  return result;
}

std::vector<int64_t> TrackTables::compositionTimes() const {
  if (sampleCount() > mostListedSamples) {
    throw MovieError(Case::doesNotFit, fmt::format("A track has {} pictures, more than are looked at", sampleCount()));
  }
  std::vector<int64_t> times;
  times.reserve(sampleCount());
  int64_t time = 0;
  for (const auto& run : durations_) {
    for (uint32_t i = 0; i < run.count; ++i, time += run.value) times.push_back(time);
  }
  size_t sample = 0;
  for (const auto& run : offsets_) {
    for (uint32_t i = 0; i < run.count; ++i) times[sample++] += run.value;
  }
  return times;
}

template <typename Visit>
void TrackTables::visitSamples(Visit visit) const {
  size_t chunk = 0;
  auto size = sizes_.begin();
  uint32_t used = 0;
  for (const auto& kinds : chunkKinds_) {
    for (uint32_t i = 0; i < kinds.count; ++i, ++chunk) {
      uint64_t offset = chunkOffsets_[chunk];
      for (uint32_t left = kinds.value.samples; left > 0;) {
        const uint32_t taken = std::min(left, size->count - used);
        if (!visit(chunk, offset, size->value, taken)) return;
        const auto next = checkedAdd<uint64_t>(offset, uint64_t{taken} * size->value);
        offset = next.value_or(std::numeric_limits<uint64_t>::max());
        left -= taken;
        used += taken;
        if (used == size->count) {
          ++size;
          used = 0;
        }
      }
    }
  }
}

uint64_t TrackTables::samplesAheadOf(uint64_t end) const {
  uint64_t samples = 0;
  visitSamples([&](size_t, uint64_t offset, uint32_t size, uint32_t count) {
    uint64_t whole = offset > end ? 0 : count;
    if (whole > 0 && size > 0) whole = std::min<uint64_t>(count, (end - offset) / size);
    samples += whole;
    return whole == count;
  });
  return samples;
}

uint64_t TrackTables::farthestEnd() const {
  uint64_t farthest = 0;
  visitSamples([&](size_t, uint64_t offset, uint32_t size, uint32_t count) {
    const auto end = checkedAdd<uint64_t>(offset, uint64_t{size} * count);
    farthest = std::max(farthest, end.value_or(std::numeric_limits<uint64_t>::max()));
    return true;
  });
  return farthest;
}

void TrackTables::forEachChunk(const std::function<void(uint64_t offset, uint64_t size)>& visit) const {
  size_t current = 0;
  uint64_t bytes = 0;
  visitSamples([&](size_t chunk, uint64_t, uint32_t size, uint32_t count) {
    if (chunk != current) visit(chunkOffsets_[current], std::exchange(bytes, 0));
    current = chunk;
    bytes += uint64_t{size} * count;
    return true;
  });
  if (!chunkOffsets_.empty()) visit(chunkOffsets_[current], bytes);
}

void TrackTables::moveChunks(const std::function<uint64_t(uint64_t offset)>& place) {
  for (uint64_t& offset : chunkOffsets_) offset = place(offset);
  nextInChunk_.reset();
}

uint64_t TrackTables::endOfLastChunk() const {
  if (chunkOffsets_.empty()) return 0;
  uint64_t end = chunkOffsets_.back();
  uint64_t left = chunkKinds_.last().samples;
  for (size_t run = sizes_.runCount(); left > 0; --run) {
    const uint64_t taken = std::min<uint64_t>(left, sizes_.run(run - 1).count);
    end += taken * sizes_.run(run - 1).value;
    left -= taken;
  }
  return end;
}

void TrackTables::writeOffsetsTo(MovieBox& stbl, bool areLong) const {
  const bool stayLong = stbl.find({"co64"}) && !stbl.find({"stco"});
  place(stbl, "stco", "co64", chunkOffsetBox(chunkOffsets_, areLong || stayLong));
}

void TrackTables::writeTo(MovieBox& stbl) const {
  std::vector<SampleToChunkEntry> entries;
  uint32_t chunk = 1;
  for (const auto& run : chunkKinds_) {
    entries.push_back({chunk, run.value.samples, run.value.description});
    chunk += run.count;
  }
  const bool isShifted = std::ranges::any_of(offsets_, isOtherThanZero<Runs<int32_t>::Run>);
  const bool hasUnsynced = std::ranges::any_of(syncs_, [](const auto& run) { return !run.value; });
  const bool haveDependencies = std::ranges::any_of(dependencies_, isOtherThanZero<Runs<uint8_t>::Run>);
  const auto placeIf = [&](bool isNeeded, std::string_view type, const std::function<MovieBox()>& make) {
    place(stbl, type, type, isNeeded ? std::optional(make()) : std::nullopt);
  };
  place(stbl, "stts", "stts", runBox("stts", 0, durations_));
  placeIf(isShifted, "ctts", [&] { return runBox("ctts", offsetVersion_, offsets_); });
  placeIf(hasUnsynced, "stss", [&] { return stssBox(syncs_); });
  placeIf(haveDependencies, "sdtp", [&] { return sdtpBox(dependencies_); });
  place(stbl, "stsc", "stsc", MovieBox::of(buildStscBox(entries)));
  place(stbl, "stsz", "stz2", sizeBox(sizes_, compactBits_));
  writeOffsetsTo(stbl, std::ranges::any_of(chunkOffsets_, needs64Bits));
  groups_.writeTo(stbl);
  fitOtherTables(stbl, sampleCount());
}

namespace {

/// Calls with each `trak`'s sample table and the tables of the same index.
void forEachTable(MovieBox& moov, const std::vector<TrackTables>& tables, const auto& use) {
  size_t index = 0;
  for (MovieBox& trak : moov.children) {
    if (trak.type != "trak") continue;
    MovieBox* stbl = trak.find({"mdia", "minf", "stbl"});
    if (!stbl) throw MovieError::damaged("A track has no sample table");
    use(tables.at(index++), *stbl);
  }
}

}  // namespace

void putTables(MovieBox& moov, const std::vector<TrackTables>& tables) {
  forEachTable(moov, tables, [](const TrackTables& own, MovieBox& stbl) { own.writeTo(stbl); });
}

void putChunkOffsets(MovieBox& moov, const std::vector<TrackTables>& tables, bool areLong) {
  forEachTable(moov, tables, [&](const TrackTables& own, MovieBox& stbl) { own.writeOffsetsTo(stbl, areLong); });
}

}  // namespace tarn
