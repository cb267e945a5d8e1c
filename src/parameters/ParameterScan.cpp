#include "parameters/ParameterScan.h"

#include <fmt/ranges.h>

#include <algorithm>
#include <memory>
#include <span>
#include <utility>

#include "mp4/MP4RemuxError.h"
#include "parameters/NALUnitParser.h"
#include "parameters/detail/NALLengthVote.h"
#include "parameters/detail/ParameterSetWalk.h"
#include "parameters/detail/ScanRules.h"
#include "platform/Error.h"
#include "platform/Log.h"

namespace tarn {
namespace {

/// Bounds memory where a damaged sample table leads to ever new mixtures of sets.
constexpr size_t mostCarriedSets = 1 << 20;

const ScanUse& useFor(ParameterScan::Purpose purpose, const ScanRules& rules) {
  using Purpose = ParameterScan::Purpose;
  if (purpose == Purpose::plan) return rules.plan;
  return purpose == Purpose::extraction ? rules.extraction : rules.segments;
}

std::unique_ptr<FileHandle> openForScan(FileManager& files, const Path& path) {
  if (!files.fileExists(path)) throw MP4RemuxError::fileNotFound();
  try {
    return files.open(path, OpenMode::reading);
  } catch (const PosixError& failure) {
    throw MP4RemuxError::ioError(Error("FileHandle", -1, failure.description()));
  }
}

void warnOfSeveralDescriptions(const std::set<uint32_t>& indices) {
  if (indices.size() <= 1) return;
  log("WARNING: Track uses {} different sample descriptions (indices: [{}])", indices.size(), fmt::join(indices, ", "));
  log("Extracting parameter sets from all samples, but Phase 2 currently modifies only the first sample entry.");
  log("Multiple sample entry support is a future enhancement.");
}

MP4SampleTableParser parseTable(FileHandle& file, const ScanRules& rules) {
  log("{}Locating moov box...", rules.prefix);
  auto moov = MP4BoxUtils::findTopLevelBox(file, "moov");
  if (!moov) throw MP4RemuxError::corruptedMP4("moov box not found");
  log("{}Locating video track stbl...", rules.prefix);
  auto stbl = NALUnitParser::findVideoTrackStbl(file, *moov);
  if (!stbl) throw MP4RemuxError::corruptedMP4("Video track stbl not found");
  MP4SampleTableParser table;
  table.parseSampleTable(file, *stbl);
  if (rules.warnsOfSeveralDescriptions) warnOfSeveralDescriptions(table.usedSampleDescriptionIndices());
  return table;
}

}  // namespace

ParameterScan::ParameterScan(const VideoCodec& codec, Purpose purpose, MP4SampleTableParser table)
    : ParameterScan(codec, purpose, table.syncSamplesOnly()) {
  table_ = std::move(table);
}

ParameterScan::ParameterScan(const VideoCodec& codec, Purpose purpose, std::vector<SampleInfo> syncSamples)
    : codec_(codec),
      use_(useFor(purpose, codec.scan)),
      samples_(std::move(syncSamples)),
      readings_(samples_.size()),
      collector_(use_.sets, use_.mostBytes) {}

ParameterScan ParameterScan::ofFile(FileManager& files, const Path& path, const VideoCodec& codec) {
  auto file = openForScan(files, path);
  ParameterScan scan(codec, Purpose::extraction, parseTable(*file, codec.scan));
  log("{}Found {} sync samples to scan", codec.scan.prefix, scan.samples_.size());
  if (scan.samples_.empty()) throw NALUnitParserError::noParameterSetsFound("there is no sync sample");
  scan.read(*file, scan.detectNALLengthSize(*file));
  return scan;
}

int ParameterScan::detectNALLengthSize(FileHandle& file) const {
  const auto voters = std::span(samples_).first(std::min(NALUnitParser::votingSamples, samples_.size()));
  return detectLengthSize(file, voters, codec_.scan);
}

void ParameterScan::read(FileHandle& file, int nalLengthSize) {
  nalLengthSize_ = nalLengthSize;
  read(file, [nalLengthSize](const SampleInfo&) { return std::optional(nalLengthSize); });
}

void ParameterScan::read(FileHandle& file, const std::function<std::optional<int>(const SampleInfo&)>& nalLengthSize) {
  if (use_.reportStart != nullptr) use_.reportStart(samples_.size());
  for (size_t sample = 0; sample < samples_.size(); ++sample) {
    auto size = nalLengthSize(samples_[sample]);
    if (!size) continue;
    readings_[sample].nalLengthSize = *size;
    readOn(file, sample, !use_.readsBehindSlices);
  }
}

void ParameterScan::readBehindSlices(FileHandle& file) {
  for (size_t sample = 0; sample < samples_.size(); ++sample) {
    if (isRead(sample)) readOn(file, sample, false);
  }
}

void ParameterScan::readOn(FileHandle& file, size_t sample, bool stopsAtSlice) {
  Reading& reading = readings_[sample];
  Carried carried;
  if (reading.carried != nullptr) carried = *reading.carried;
  const size_t number = sample + 1;
  for (uint32_t set : carried.sets) lastSample_[set] = number;
  const NALWalkRules rules{.codec = codec_.nal, .stopsAtSlice = stopsAtSlice, .logsDamage = use_.logsDamage};
  ParameterSetWalk walk(file, samples_[sample], reading.nalLengthSize, rules, reading.position);
  while (auto unit = walk.next()) {
    const auto set = collector_.processNALUnit(std::move(unit->bytes));
    if (!set) continue;
    lastSample_.resize(collector_.count());
    if (std::exchange(lastSample_[*set], number) == number) continue;
    carried.sets.push_back(static_cast<uint32_t>(*set));
    if (!unit->isBehindSlice) carried.aheadOfSlices = carried.sets.size();
  }
  reading.position = walk.position();
  reading.carried = keep(std::move(carried));
}

const ParameterScan::Carried* ParameterScan::keep(Carried carried) {
  const auto [kept, isNew] = carried_.insert(std::move(carried));
  if (isNew) carriedSets_ += kept->sets.size();
  if (carriedSets_ > mostCarriedSets) throw NALUnitParserError::tooManyParameterSets();
  return &*kept;
}

ExtractedParameterSets ParameterScan::extract() const {
  ExtractedParameterSets result{.sets = sets(), .nalLengthSize = nalLengthSize_};
  dropTooLongSets(result.sets);
  if (auto missing = missingKinds(result.sets, codec_.nal); !missing.empty()) {
    throw NALUnitParserError::noParameterSetsFound(missing);
  }
  result.sets.isCollectionComplete = true;
  codec_.scan.reportResult(result.sets, samples_.size());
  return result;
}

ParameterSets ParameterScan::carriedBy(size_t sample, Side side) const {
  const Carried& carried = *readings_[sample].carried;
  std::span<const uint32_t> numbers(carried.sets);
  if (side == Side::aheadOfSlices) numbers = numbers.first(carried.aheadOfSlices);
  ParameterSets result;
  for (uint32_t number : numbers) {
    const auto [kind, index] = collector_.place(number);
    unitsOf(result, kind).push_back(unitsOf(sets(), kind)[index]);
    if (kind == ParameterSetKind::sps) result.spsRbspArray.push_back(sets().spsRbspArray[index]);
  }
  return result;
}

std::vector<ConfigurationSegment> ParameterScan::segments(
    int64_t totalSampleCount, Side side,
    const std::function<const ParameterSets&(const SampleInfo& sample)>& entrySets) const {
  const SegmentRules& rules = use_.segments;
  if (rules.reportStart != nullptr) rules.reportStart(samples_.size());
  SegmentList list(rules);
  const ParameterSets* lastEntry = nullptr;
  size_t last = 0;
  for (size_t sample = 0; sample < samples_.size(); ++sample) {
    if (!isRead(sample)) continue;
    const ParameterSets& entry = entrySets(samples_[sample]);
    if (&entry == lastEntry && carryTheSame(sample, last)) continue;
    if (&entry != lastEntry) list.enterSampleEntry(samples_[sample].index, entry);
    list.addSyncSample(samples_[sample].index, carriedBy(sample, side));
    lastEntry = &entry;
    last = sample;
  }
  if (size_t count = collector_.unreadable(); count > 0) {
    log("Skipping {} parameter sets that no decoder can read or no sample entry hold", count);
  }
  return std::move(list).finish(totalSampleCount);
}

}  // namespace tarn
