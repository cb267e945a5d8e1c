#include "mp4/SampleLocations.h"

#include <algorithm>
#include <string>

#include "mp4/SampleTableBuilders.h"

namespace tarn {

namespace {

SampleSizes readAnySizes(FileHandle& file, const MP4BoxInfo& stbl) {
  bool isCompact = !MP4BoxUtils::findChildBox(file, stbl, "stsz") && MP4BoxUtils::findChildBox(file, stbl, "stz2");
  return isCompact ? readCompactSampleSizes(file, stbl) : readSampleSizes(file, stbl);
}

}  // namespace

SampleLocations::SampleLocations(FileHandle& file, const MP4BoxInfo& stbl)
    : sizes_(readAnySizes(file, stbl)), fileSize_(file.seekToEnd()) {
  auto entries = readSampleToChunk(file, stbl);
  chunkOffsets_ = readChunkOffsets(file, stbl).offsets;
  runs_ = chunkRuns(entries, chunkOffsets_.size());
  std::erase_if(runs_, [](const ChunkRun& run) { return run.samplesPerChunk == 0; });
  countInFile_ = findCountInFile();
}

uint32_t SampleLocations::countInChunks() const {
  if (runs_.empty()) return 0;
  const ChunkRun& last = runs_.back();
  // chunkRuns has tested that all samples together fit 63 bits.
  int64_t samples = last.firstSample + static_cast<int64_t>(last.chunkCount * last.samplesPerChunk);
  return static_cast<uint32_t>(std::min<int64_t>(samples, count()));
}

uint32_t SampleLocations::findCountInFile() const {
  uint32_t sample = 0;
  for (const ChunkRun& run : runs_) {
    for (uint64_t chunk = run.firstChunk; chunk < run.firstChunk + run.chunkCount; ++chunk) {
      uint32_t end = sample + std::min(run.samplesPerChunk, count() - sample);
      uint64_t room = fileSize_ - std::min(chunkOffsets_[chunk], fileSize_);
      if (sizes_.fixedSize != 0) {
        uint64_t whole = room / sizes_.fixedSize;
        if (whole < end - sample) return sample + static_cast<uint32_t>(whole);
        sample = end;
      }
      for (; sample < end; ++sample) {
        if (sizes_.sizes[sample] > room) return sample;
        room -= sizes_.sizes[sample];
      }
      if (sample == count()) return sample;
    }
  }
  return sample;
}

uint32_t SampleLocations::countMissing() const {
  if (countInFile_ == count()) return 0;
  uint32_t missing = count() - countInChunks();
  uint32_t sample = 0;
  for (Cursor cursor(*this); cursor.leftInChunk() > 0;) {
    const uint64_t room = fileSize_ - std::min(cursor.offset(), fileSize_);
    const uint32_t samples = haveOneSize() ? cursor.leftInChunk() : 1;
    const uint32_t size = sizeOf(sample);
    missing += samples - static_cast<uint32_t>(size == 0 ? samples : std::min<uint64_t>(samples, room / size));
    cursor.advance(samples);
    sample += samples;
  }
  return missing;
}

SampleLocation SampleLocations::locate(uint32_t sample) {
  if (sample >= count()) throw sampleTableError("Sample index out of range");
  auto behind = std::ranges::upper_bound(runs_, int64_t{sample}, {}, &ChunkRun::firstSample);
  const ChunkRun* run = behind == runs_.begin() ? nullptr : &*std::prev(behind);
  uint64_t chunkInRun = run ? static_cast<uint64_t>(sample - run->firstSample) / run->samplesPerChunk : 0;
  if (!run || chunkInRun >= run->chunkCount) {
    throw sampleTableError("Could not compute offset for sample " + std::to_string(sample));
  }
  uint64_t chunk = run->firstChunk + chunkInRun;
  if (!last_ || last_->chunk != chunk || last_->sample > sample) {
    int64_t first = run->firstSample + static_cast<int64_t>(chunkInRun) * run->samplesPerChunk;
    last_ = {chunk, static_cast<uint32_t>(first), chunkOffsets_[chunk]};
  }
  uint64_t room = fileSize_ - std::min(last_->offset, fileSize_);
  uint64_t ahead = 0;
  if (sizes_.fixedSize != 0) {
    ahead = uint64_t{sample - last_->sample} * sizes_.fixedSize;
  } else {
    for (uint32_t i = last_->sample; i < sample; ++i) ahead += sizes_.sizes[i];
  }
  uint32_t size = sizes_.fixedSize != 0 ? sizes_.fixedSize : sizes_.sizes[sample];
  if (last_->offset > fileSize_ || ahead > room || size > room - ahead) {
    throw sampleTableError("Sample " + std::to_string(sample) + " does not lie in the file");
  }
  last_ = {chunk, sample, last_->offset + ahead};
  return {last_->offset, size};
}

SampleLocations::Cursor::Cursor(const SampleLocations& locations) : locations_(locations) {
  enterChunk();
}

void SampleLocations::Cursor::enterChunk() {
  left_ = 0;
  if (run_ == locations_.runs_.size()) return;
  const ChunkRun& run = locations_.runs_[run_];
  left_ = std::min(run.samplesPerChunk, locations_.count() - sample_);
  offset_ = locations_.chunkOffsets_[run.firstChunk + chunkInRun_];
}

void SampleLocations::Cursor::advance(uint32_t samples) {
  offset_ += uint64_t{samples} * locations_.sizeOf(sample_);
  sample_ += samples;
  left_ -= samples;
  if (left_ > 0) return;
  if (++chunkInRun_ == locations_.runs_[run_].chunkCount) {
    ++run_;
    chunkInRun_ = 0;
  }
  enterChunk();
}

}  // namespace tarn
