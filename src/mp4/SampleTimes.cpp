#include "mp4/SampleTimes.h"

#include <algorithm>

#include "mp4/EditTimeline.h"
#include "mp4/SampleTableBuilders.h"
#include "mp4/TableBox.h"

namespace tarn {
namespace {

/// The entries of an `stts` or `ctts`: count and value, count and value.
std::vector<uint32_t> readEntries(FileHandle& file, const MP4BoxInfo& box) {
  TableBox table(file, box, TableBox::oneField);
  return table.entries<uint32_t>(uint64_t{table.field()} * 2);
}

/// The run that holds a sample.
template <typename Run>
size_t runOf(const std::vector<Run>& runs, uint32_t sample) {
  auto behind = std::ranges::upper_bound(runs, sample, {}, &Run::firstSample);
  return behind == runs.begin() ? 0 : static_cast<size_t>(behind - runs.begin()) - 1;
}

}  // namespace

SampleTimes::SampleTimes(FileHandle& file, const MP4BoxInfo& stbl, uint32_t sampleCount) : sampleCount_(sampleCount) {
  readDeltas(file, stbl);
  readOffsets(file, stbl);
}

void SampleTimes::readDeltas(FileHandle& file, const MP4BoxInfo& stbl) {
  auto entries = readEntries(file, requireTableBox(file, stbl, "stts"));
  deltas_.reserve(std::min<size_t>(entries.size() / 2, sampleCount_));
  uint32_t sample = 0;
  int64_t time = 0;
  uint32_t delta = 0;
  auto advance = [&](uint32_t samples) {
    // 32 bits times 32 bits on top of 60: no overflow before the test.
    auto length = uint64_t{samples} * delta;
    if (length > static_cast<uint64_t>(MediaEdit::latestTime - time)) {
      throw sampleTableError("stts reaches out of range");
    }
    time += static_cast<int64_t>(length);
    sample += samples;
  };
  for (size_t i = 0; i < entries.size() && sample < sampleCount_; i += 2) {
    if (entries[i] == 0) continue;
    delta = entries[i + 1];
    deltas_.push_back({time, sample, delta});
    advance(std::min(entries[i], sampleCount_ - sample));
  }
  if (sampleCount_ > 0 && deltas_.empty()) throw sampleTableError("stts names no sample");
  advance(sampleCount_ - sample);
  duration_ = time;
}

void SampleTimes::readOffsets(FileHandle& file, const MP4BoxInfo& stbl) {
  uint32_t sample = 0;
  if (auto ctts = MP4BoxUtils::findChildBox(file, stbl, "ctts")) {
    auto entries = readEntries(file, *ctts);
    offsets_.reserve(std::min<size_t>(entries.size() / 2, sampleCount_) + 1);
    for (size_t i = 0; i < entries.size() && sample < sampleCount_; i += 2) {
      if (entries[i] == 0) continue;
      offsets_.push_back({sample, static_cast<int32_t>(entries[i + 1])});
      sample += std::min(entries[i], sampleCount_ - sample);
    }
  }
  if (sample < sampleCount_ || offsets_.empty()) offsets_.push_back({sample, 0});
  auto [smallest, largest] = std::ranges::minmax(offsets_, {}, &OffsetRun::offset);
  smallestOffset_ = smallest.offset;
  largestOffset_ = largest.offset;
}

std::vector<SampleTimes::Run> SampleTimes::runs() const {
  std::vector<Run> runs;
  runs.reserve(deltas_.size());
  for (size_t i = 0; i < deltas_.size(); ++i) {
    const auto& [time, first, delta] = deltas_[i];
    const uint32_t end = i + 1 < deltas_.size() ? deltas_[i + 1].firstSample : sampleCount_;
    runs.push_back({time, first, end - first, delta});
  }
  return runs;
}

uint32_t SampleTimes::firstDecodedFrom(int64_t time) const {
  auto from = std::ranges::lower_bound(deltas_, time, {}, &DeltaRun::firstTime);
  if (from == deltas_.begin()) return 0;
  // The last run that begins before the time; where its delta is 0 none of its samples comes late enough.
  const DeltaRun& run = *std::prev(from);
  uint64_t behind = from == deltas_.end() ? sampleCount_ : from->firstSample;
  if (run.delta == 0) return static_cast<uint32_t>(behind);
  auto distance = static_cast<uint64_t>(time - run.firstTime);
  uint64_t ahead = (distance + run.delta - 1) / run.delta;
  return static_cast<uint32_t>(std::min(run.firstSample + ahead, behind));
}

uint32_t SampleTimes::firstReaching(int64_t time) const {
  // A sample reaches to where the next one is decoded.
  uint32_t from = firstDecodedFrom(time);
  return from == 0 ? 0 : from - 1;
}

uint32_t SampleTimes::countWithoutLength(uint32_t first, uint32_t end) const {
  uint32_t count = 0;
  for (size_t run = runOf(deltas_, first); run < deltas_.size() && deltas_[run].firstSample < end; ++run) {
    uint32_t runEnd = run + 1 < deltas_.size() ? deltas_[run + 1].firstSample : sampleCount_;
    if (deltas_[run].delta == 0) count += std::min(runEnd, end) - std::max(deltas_[run].firstSample, first);
  }
  return count;
}

SampleTimes::Cursor::Cursor(const SampleTimes& times, uint32_t sample)
    : times_(times),
      sample_(sample),
      deltaRun_(runOf(times.deltas_, sample)),
      offsetRun_(runOf(times.offsets_, sample)) {
  if (times.deltas_.empty()) {
    decodeTime_ = 0;
    return;
  }
  const DeltaRun& run = times.deltas_[deltaRun_];
  decodeTime_ = run.firstTime + int64_t{sample - run.firstSample} * run.delta;
}

SampleTime SampleTimes::Cursor::time() const {
  return {decodeTime_, decodeTime_ + times_.offsets_[offsetRun_].offset, times_.deltas_[deltaRun_].delta};
}

void SampleTimes::Cursor::advance() {
  decodeTime_ += times_.deltas_[deltaRun_].delta;
  ++sample_;
  if (deltaRun_ + 1 < times_.deltas_.size() && times_.deltas_[deltaRun_ + 1].firstSample == sample_) ++deltaRun_;
  if (offsetRun_ + 1 < times_.offsets_.size() && times_.offsets_[offsetRun_ + 1].firstSample == sample_) ++offsetRun_;
}

}  // namespace tarn
