#include "audio/FastPathAudioBuilder.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <utility>

#include "audio/SilentAACSampleCache.h"
#include "audio/analysis/SoundTracks.h"
#include "mp4/BoxLayout.h"
#include "mp4/MP4SampleTableParser.h"
#include "mp4/SampleTableBuilders.h"
#include "platform/Checked.h"
#include "platform/Log.h"
#include "platform/OpenFile.h"

namespace tarn {
namespace {

using BuildResult = FastPathAudioBuilder::BuildResult;

constexpr uint32_t unusuallyLargeSample = 10000;
constexpr int64_t mostSilentSamples = 1 << 20;
constexpr int64_t pcmSamplesPerPacket = 1024;
constexpr int64_t minuteInToleratedDrifts = 6000;  // a minute is this many times 10 ms

struct AudioTrackInfo {
  MP4BoxInfo trakBox;
  MP4BoxInfo stblBox;
};

/// The first sound track that has a sample table.
AudioTrackInfo findAudioTrack(FileHandle& file) {
  const auto moov = MP4BoxUtils::findTopLevelBox(file, "moov");
  if (!moov) throw FastPathError::cannotParseBox("moov");
  SoundTracks tracks(file, *moov);
  while (const auto track = tracks.next()) {
    if (const auto stbl = MP4BoxUtils::findChildBox(file, track->minf, "stbl")) return {track->trak, *stbl};
  }
  throw FastPathError::noAudioTrack();
}

int64_t requireSum(int64_t a, int64_t b) {
  const auto sum = checkedAdd(a, b);
  if (!sum) throw FastPathError::validationFailed("The length of the actions does not fit 64 bits");
  return *sum;
}

/// Joins a later action to one at the same place.
void join(AudioAction& action, const AudioAction& later) {
  action.durationTicks = requireSum(action.durationTicks, later.durationTicks);
  action.reason += "; " + later.reason;
}

/// Puts packets together, those of the source and silent ones.
class PacketWriter {
 public:
  PacketWriter(FileHandle& file, const MP4SampleTableParser& table, Bytes silentFrame, BuildResult& result)
      : file_(file), table_(table), silentFrame_(std::move(silentFrame)), result_(result) {}

  void reserve(int64_t silentSamples) {
    const uint64_t sourceBytes = table_.sizeOfFirst(table_.sampleCount());
    if (sourceBytes > file_.seekToEnd()) {
      throw FastPathError::validationFailed("The samples are larger than the file");
    }
    const auto silent = static_cast<size_t>(std::clamp<int64_t>(silentSamples, 0, mostSilentSamples));
    result_.audioData.reserve(sourceBytes + silent * silentFrame_.size());
    result_.sampleSizes.reserve(table_.sampleCount() + silent);
  }

  /// How many whole packets these ticks and the rest of the last insertion hold; the new rest is left to the next one.
  void appendSilence(int64_t ticks) {
    if (result_.sampleDelta <= 0) return;
    ticks = requireSum(ticks, carry_);
    const int64_t count = std::max<int64_t>(ticks / result_.sampleDelta, 0);
    carry_ = ticks % result_.sampleDelta;
    if (count > mostSilentSamples - result_.silentSamplesInserted) {
      throw FastPathError::validationFailed("More silence than can be inserted");
    }
    for (int64_t i = 0; i < count; ++i) {
      result_.audioData.insert(result_.audioData.end(), silentFrame_.begin(), silentFrame_.end());
    }
    result_.sampleSizes.insert(result_.sampleSizes.end(), static_cast<size_t>(count),
                               static_cast<uint32_t>(silentFrame_.size()));
    result_.silentSamplesInserted += count;
  }

  /// The source's samples from `begin` up to `end`. Those that are side by side are read at once.
  void appendSamples(int64_t begin, int64_t end) {
    while (begin < end) {
      const uint64_t offset = table_.sampleInfo(begin).fileOffset;
      uint64_t size = 0;
      int64_t next = begin;
      do {
        size += table_.sampleSize(static_cast<size_t>(next));
        ++next;
      } while (next < end && table_.sampleInfo(next).fileOffset == offset + size);
      readRun(begin, next, offset, size);
      begin = next;
    }
  }

 private:
  void readRun(int64_t begin, int64_t end, uint64_t offset, uint64_t size) {
    const size_t place = result_.audioData.size();
    result_.audioData.resize(place + size);
    size_t got = 0;
    try {
      file_.seek(offset);
      got = file_.readInto(std::span(result_.audioData).subspan(place));
    } catch (const PosixError&) {
      throw unreadable(begin);  // or one after it: all that is known is that the run cannot be read
    }
    for (int64_t i = begin; i < end; ++i) {
      const uint32_t sampleSize = table_.sampleSize(static_cast<size_t>(i));
      if (sampleSize > got) throw unreadable(i);
      got -= sampleSize;
      result_.sampleSizes.push_back(sampleSize);
    }
  }

  FastPathError unreadable(int64_t index) const {
    const uint32_t size = table_.sampleSize(static_cast<size_t>(index));
    return FastPathError::sampleReadFailed(index, fmt::format("Could not read {} bytes", size));
  }

  FileHandle& file_;
  const MP4SampleTableParser& table_;
  Bytes silentFrame_;
  BuildResult& result_;
  int64_t carry_ = 0;  ///< ticks
};

}  // namespace

BuildResult FastPathAudioBuilder::build(std::span<const AudioAction> actions) const {
  log("FastPathAudioBuilder: Starting build with {} actions", actions.size());
  const auto file = openFile(files_, sourceURL_, OpenMode::reading, FastPathError::cannotReadFile());
  MP4SampleTableParser table;
  table.parseSampleTable(*file, findAudioTrack(*file).stblBox);
  const auto originalCount = int64_t{table.sampleCount()};
  log("FastPathAudioBuilder: Original audio has {} samples", originalCount);
  Bytes silent = silentFrame();
  requireTrueSampleDelta(configCheck_);
  const ActionMap map = prepareActionMap(actions, originalCount, configCheck_.sampleDelta);
  log("FastPathAudioBuilder: Will produce {} samples ({} silent)", requireSum(originalCount, map.silentSampleCount),
      map.silentSampleCount);

  BuildResult result;
  result.timescale = configCheck_.audioTimescale;
  result.sampleDelta = configCheck_.sampleDelta;
  result.sampleRate = configCheck_.sampleRate;
  PacketWriter packets(*file, table, std::move(silent), result);
  packets.reserve(map.silentSampleCount);
  int64_t done = 0;
  for (const auto& [index, action] : map.insertions) {
    if (index < 0) continue;  // there is no such sample
    packets.appendSamples(done, index);
    packets.appendSilence(action.durationTicks);
    done = index;
  }
  packets.appendSamples(done, originalCount);
  if (map.trailing) packets.appendSilence(map.trailing->durationTicks);

  result.sampleCount = static_cast<int64_t>(result.sampleSizes.size());
  const auto duration = checkedMultiply(result.sampleCount, result.sampleDelta);
  if (!duration) throw FastPathError::validationFailed("The duration does not fit 64 bits");
  result.durationTicks = *duration;
  log("FastPathAudioBuilder: Built {} samples, {} silent, {} bytes", result.sampleCount, result.silentSamplesInserted,
      result.audioData.size());
  return result;
}

Bytes FastPathAudioBuilder::silentFrame() const {
  try {
    return SilentAACSampleCache::shared().getSilentFrame(configCheck_.sampleRate);
  } catch (const SilentFrameError& error) {
    log("FastPathAudioBuilder: Failed to get silent frame at {}Hz: {}", configCheck_.sampleRate, error.description());
    throw FastPathError::silentFrameGenerationFailed();
  }
}

/// The first entry of an `stts` may be a gap, or a coarse timescale may round it: laid out by it, the sound would run
/// away from the pictures.
void FastPathAudioBuilder::requireTrueSampleDelta(const AudioConfigCheck& config) {
  if (config.sampleDelta <= 0 || config.sampleRate <= 0) return;  // told of elsewhere
  const double packet = static_cast<double>(pcmSamplesPerPacket) / static_cast<double>(config.sampleRate);
  const double ticks = packet * config.audioTimescale;
  const double error = std::abs(static_cast<double>(config.sampleDelta) - ticks);
  if (error * minuteInToleratedDrifts <= ticks) return;
  throw FastPathError::validationFailed(fmt::format("A sample delta of {} at {} ticks a second is no packet at {} Hz",
                                                    config.sampleDelta, config.audioTimescale, config.sampleRate));
}

FastPathAudioBuilder::ActionMap FastPathAudioBuilder::prepareActionMap(std::span<const AudioAction> actions,
                                                                       int64_t originalSampleCount,
                                                                       int64_t sampleDelta) {
  ActionMap map;
  for (const AudioAction& action : actions) {
    if (action.kind == AudioAction::Kind::dropSamples) continue;
    if (sampleDelta >= 1) {
      const int64_t rounded = requireSum(action.durationTicks, sampleDelta / 2) / sampleDelta;
      map.silentSampleCount = requireSum(map.silentSampleCount, rounded);
    }
    if (action.insertBeforeSampleIndex < originalSampleCount) {
      const auto [place, isFirst] = map.insertions.try_emplace(action.insertBeforeSampleIndex, action);
      if (!isFirst) join(place->second, action);
    } else if (map.trailing) {
      join(*map.trailing, action);
    } else {
      map.trailing = action;
    }
  }
  return map;
}

void FastPathAudioBuilder::validate(const BuildResult& result) {
  const size_t sizes = result.sampleSizes.size();
  if (result.sampleCount < 0 || static_cast<size_t>(result.sampleCount) != sizes) {
    throw FastPathError::validationFailed(fmt::format("Sample count mismatch: {} != {}", result.sampleCount, sizes));
  }
  const auto sum = std::accumulate(result.sampleSizes.begin(), result.sampleSizes.end(), uint64_t{0});
  if (sum != result.audioData.size()) {
    throw FastPathError::validationFailed(fmt::format("Data size mismatch: {} != {}", result.audioData.size(), sum));
  }
  if (result.durationTicks < 1) throw FastPathError::validationFailed("Duration must be positive");
  for (size_t i = 0; i < sizes; ++i) {
    const uint32_t size = result.sampleSizes[i];
    if (size == 0) throw FastPathError::validationFailed(fmt::format("Sample {} has zero size", i));
    if (size > unusuallyLargeSample) {
      log("FastPathAudioBuilder: Warning - sample {} has unusually large size: {}", i, size);
    }
  }
  logLine("FastPathAudioBuilder: Validation passed");
}

FastPathAudioBuilder::SampleTableBoxes FastPathAudioBuilder::buildSampleTableBoxes(const BuildResult& result,
                                                                                   uint64_t mdatOffset) {
  if (!std::in_range<uint32_t>(result.sampleCount) || !std::in_range<uint32_t>(result.sampleDelta)) {
    throw FastPathError::validationFailed("The sample times do not fit an entry of 32 bits");
  }
  std::vector<uint64_t> offsets;
  offsets.reserve(result.sampleSizes.size());
  uint64_t offset = mdatOffset + layout::boxHeaderSize;
  for (uint32_t size : result.sampleSizes) {
    offsets.push_back(offset);
    offset += size;
  }
  return {
      .stsz = buildStszBox(result.sampleSizes),
      .stts = buildSimpleSttsBox(static_cast<uint32_t>(result.sampleCount), static_cast<uint32_t>(result.sampleDelta)),
      .stsc = buildSimpleStscBox(),
      .stco = buildChunkOffsetBox(offsets)};
}

FastPathError::FastPathError(Case kind, std::string description)
    : Error("FastPathError", -1, std::move(description)), kind_(kind) {}

FastPathError FastPathError::cannotParseBox(const std::string& type) {
  return {Case::cannotParseBox, "Cannot parse " + type + " box"};
}

FastPathError FastPathError::sampleReadFailed(int64_t index, const std::string& message) {
  return {Case::sampleReadFailed, fmt::format("Failed to read sample {}: {}", index, message)};
}

FastPathError FastPathError::validationFailed(const std::string& message) {
  return {Case::validationFailed, "Validation failed: " + message};
}

FastPathError FastPathError::noAudioTrack() {
  return {Case::noAudioTrack, "No audio track found in source file"};
}

FastPathError FastPathError::cannotReadFile() {
  return {Case::cannotReadFile, "Cannot read source MP4 file"};
}

FastPathError FastPathError::silentFrameGenerationFailed() {
  return {Case::silentFrameGenerationFailed, "Failed to generate silent AAC frame"};
}

}  // namespace tarn
