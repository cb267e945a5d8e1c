#include "media/detail/SampleTableSource.h"

#include <algorithm>
#include <compare>
#include <limits>
#include <string>
#include <utility>

#include "mp4/SampleTableBuilders.h"

namespace tarn {
namespace {

/// Edits may show the same media many times over, so a small file could make an endless stream. This many samples are
/// walked at most, or all of the track once where it has more.
constexpr uint64_t mostSamplesWalked = 1 << 26;

}  // namespace

SampleTableSource::SampleTableSource(Tables tables) : tables_(std::move(tables)) {
  for (const auto& description : tables_.descriptions) kinds_.push_back(kindOf(description, tables_.timescale));
  if (kinds_.empty()) kinds_.push_back(kindOf(nullptr, tables_.timescale));
  uint64_t walked = 0;
  for (const MediaEdit& edit : tables_.edits) {
    SampleRange range = rangeOf(edit);
    walked += range.end - range.first;
  }
  if (walked > std::max<uint64_t>(mostSamplesWalked, tables_.locations.countInFile())) {
    throw sampleTableError("elst shows the media too often");
  }
}

SampleTableSource::SampleKind SampleTableSource::kindOf(const CMFormatDescriptionPointer& description,
                                                        int32_t timescale) {
  SampleKind kind{description, std::nullopt, std::numeric_limits<int64_t>::max()};
  const auto* stream = description ? CMAudioFormatDescriptionGetStreamBasicDescription(*description) : nullptr;
  if (stream == nullptr || stream->mFormatID != kAudioFormatMPEG4AAC || stream->mFramesPerPacket == 0) return kind;
  // 1024 frames of the core coder last as long as the 2048 that SBR makes of them at twice the rate, so one rule serves
  // both, and a stream at or below 24 kHz too, whichever of them it is taken for.
  auto rate = static_cast<int32_t>(stream->mSampleRate);
  kind.nominalDuration = CMTime::make(stream->mFramesPerPacket, rate);
  if (!kind.nominalDuration->isValid()) return {description, std::nullopt, kind.codedLength};
  kind.codedLength = (int64_t{stream->mFramesPerPacket} * timescale + rate / 2) / rate;
  return kind;
}

SampleTableSource::SampleRange SampleTableSource::rangeOf(const MediaEdit& edit) const {
  const SampleTimes& times = tables_.times;
  uint32_t first = times.firstReaching(edit.mediaStart - times.largestOffset());
  uint32_t end = times.firstDecodedFrom(edit.mediaEnd - times.smallestOffset());
  if (first >= end) return {first, first};
  // A table may promise samples without end. The first that is missing ends the stream, so none after it is walked.
  uint32_t missing = tables_.locations.countInFile();
  return {std::min(first, missing), end > missing ? missing + 1 : end};
}

const SampleTableSource::SampleKind& SampleTableSource::kindOf(uint32_t sample) {
  if (sample >= kindRange_.first && sample < kindRange_.end) return kinds_[kind_];
  const auto& runs = tables_.locations.runs();
  auto behind = std::ranges::upper_bound(runs, int64_t{sample}, {}, &ChunkRun::firstSample);
  // A sample without a chunk, or with a description that is not there, counts as one of the first.
  kind_ = 0;
  if (behind != runs.begin()) {
    uint64_t index = std::prev(behind)->sampleDescriptionIndex;
    if (index >= 1 && index <= kinds_.size()) kind_ = index - 1;
  }
  int64_t end = behind == runs.end() ? tables_.locations.count() : behind->firstSample;
  kindRange_ = {sample, static_cast<uint32_t>(std::min<int64_t>(end, tables_.locations.count()))};
  return kinds_[kind_];
}

std::optional<CMSampleBuffer> SampleTableSource::next() {
  for (; edit_ < tables_.edits.size(); ++edit_, cursor_.reset()) {
    const MediaEdit& edit = tables_.edits[edit_];
    if (!cursor_) {
      SampleRange range = rangeOf(edit);
      cursor_.emplace(tables_.times, range.first);
      end_ = range.end;
    }
    while (cursor_->sample() < end_) {
      uint32_t sample = cursor_->sample();
      if (sample >= tables_.locations.countInFile()) {
        edit_ = tables_.edits.size();
        throw sampleTableError("Sample " + std::to_string(sample) + " does not lie in the file");
      }
      SampleTime time = cursor_->time();
      cursor_->advance();
      const SampleKind& kind = kindOf(sample);
      int64_t length = std::min<int64_t>(time.delta, kind.codedLength);
      // A sample without a length is shown where its moment is.
      int64_t reach = time.compositionTime + std::max<int64_t>(length, 1);
      if (time.compositionTime >= edit.mediaEnd || reach <= edit.mediaStart) continue;
      return buffer(sample, time, kind, length);
    }
  }
  return std::nullopt;
}

CMSampleBuffer SampleTableSource::buffer(uint32_t sample, const SampleTime& time, const SampleKind& kind,
                                         int64_t length) const {
  const MediaEdit& edit = tables_.edits[edit_];
  CMSampleBuffer result;
  result.presentationTimeStamp = ticks(time.compositionTime - edit.mediaStart + edit.presentationStart);
  result.duration = ticks(time.delta);
  bool isLast = sample + 1 == tables_.locations.count();
  if (kind.nominalDuration && (!isLast || std::is_lt(compare(*kind.nominalDuration, result.duration)))) {
    result.duration = *kind.nominalDuration;
  }
  result.numSamples = 1;
  result.formatDescription = kind.description;
  result.sampleIndex = sample;
  result.trimDurationAtStart = ticks(std::max<int64_t>(edit.mediaStart - time.compositionTime, 0));
  result.trimDurationAtEnd = ticks(std::max<int64_t>(time.compositionTime + length - edit.mediaEnd, 0));
  return result;
}

Bytes SampleTableSource::data(int64_t sampleIndex) {
  if (sampleIndex < 0 || sampleIndex > std::numeric_limits<uint32_t>::max()) {
    throw sampleTableError("Sample index out of range");
  }
  SampleLocation location = tables_.locations.locate(static_cast<uint32_t>(sampleIndex));
  tables_.file->seek(location.offset);
  Bytes bytes = tables_.file->read(location.size);
  if (bytes.size() < location.size) throw sampleTableError("Sample " + std::to_string(sampleIndex) + " was cut off");
  return bytes;
}

}  // namespace tarn
