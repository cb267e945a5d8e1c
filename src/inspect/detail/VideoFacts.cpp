#include "inspect/detail/VideoFacts.h"

#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <utility>

#include "inspect/detail/MovieFacts.h"
#include "mp4/BoxLayout.h"
#include "mp4/BoxWalker.h"
#include "mp4/DataExtensions.h"
#include "mp4/MP4BoxUtils.h"
#include "mp4/MP4SampleTableParser.h"
#include "parameters/NALUnitParser.h"
#include "parameters/ParameterScan.h"
#include "parameters/VideoCodec.h"
#include "platform/Error.h"

namespace tarn {
namespace {

constexpr size_t largestStsd = 16 << 20;

ConfigurationFacts readConfiguration(const BoxHeader& box, const VideoCodec& codec, ByteView contents) {
  ConfigurationFacts facts{.type = box.type, .size = box.size, .problem = std::nullopt};
  try {
    const ConfigurationContents record = codec.readConfigBox(contents);
    facts.vps = record.sets.vpsArray.size();
    facts.sps = record.sets.spsArray.size();
    facts.pps = record.sets.ppsArray.size();
    facts.isComplete = record.isComplete;
  } catch (const Error& failure) {
    facts.problem = failure.description();
  }
  return facts;
}

SampleEntryFacts readEntry(ByteView stsd, const BoxHeader& header) {
  SampleEntryFacts entry;
  entry.tag = header.type;
  entry.size = header.size;
  const auto start = static_cast<size_t>(header.offset);
  if (auto size = readUInt32(stsd, start + layout::pictureSize.offset)) {
    entry.picture = {.width = *size >> 16, .height = *size & 0xFFFF};
  }
  if (header.size < layout::visualEntrySize) return entry;
  const auto end = static_cast<size_t>(std::min<uint64_t>(header.end(), stsd.size()));
  BufferBoxWalker walker(stsd, start + layout::visualEntrySize, end, boxwalk::sampleEntryChildren);
  while (auto child = walker.next()) {
    const VideoCodec* codec = codecOfConfigBox(child->type);
    if (entry.configuration || codec == nullptr) continue;
    auto contents =
        stsd.subspan(static_cast<size_t>(child->contentOffset()), static_cast<size_t>(child->contentSize()));
    entry.configuration = readConfiguration(*child, *codec, contents);
  }
  const BoxWalkStop& stop = walker.stop();
  entry.strayBytes = end - std::min<uint64_t>(end, stop.offset);
  if (stop.reason == BoxWalkStop::Reason::overrun) entry.firstStray = stop.type;
  return entry;
}

void readEntries(FileHandle& file, const MP4BoxInfo& stbl, VideoFacts& video) {
  auto stsd = MP4BoxUtils::findChildBox(file, stbl, "stsd");
  if (!stsd) {
    video.problem = "there is no stsd box";
    return;
  }
  file.seek(stsd->offset);
  const Bytes bytes = file.read(static_cast<size_t>(std::min<uint64_t>(stsd->size, largestStsd)));
  const uint32_t count = readUInt32(bytes, layout::entryCount.offset).value_or(0);
  BufferBoxWalker walker(bytes, layout::tableHeaderSize, bytes.size(), boxwalk::movieBuffer);
  while (video.entries.size() < std::min<size_t>(count, mostListed)) {
    auto header = walker.next();
    if (!header) break;
    video.entries.push_back(readEntry(bytes, *header));
  }
  if (video.entries.size() < count) {
    video.problem = fmt::format("of {} sample entries {} can be read", count, video.entries.size());
  }
}

/// Tells each entry its samples, by the descriptions of the chunks (ISO/IEC 14496-12 8.7.4).
void assignSamples(const MP4SampleTableParser& table, std::vector<SampleEntryFacts>& entries) {
  const auto& starts = table.chunkStartSampleIndex();
  for (size_t chunk = 0; chunk < starts.size(); ++chunk) {
    const int64_t first = starts[chunk] + 1;
    const int64_t count = table.samplesInChunk()[chunk];
    const auto samples = int64_t{table.sampleCount()};
    if (count < 1 || first > samples) continue;
    const uint32_t description = table.sampleDescriptionIndex(first - 1).value_or(0);
    if (description < 1 || description > entries.size()) continue;
    auto& ranges = entries[description - 1].ranges;
    const int64_t last = std::min(first - 1 + count, samples);
    if (!ranges.empty() && ranges.back().last + 1 == first) {
      ranges.back().last = last;
    } else {
      ranges.push_back({first, last});
    }
  }
}

std::vector<size_t> sizesOf(const std::vector<Bytes>& units) {
  std::vector<size_t> sizes;
  sizes.reserve(units.size());
  for (const Bytes& unit : units) sizes.push_back(unit.size());
  return sizes;
}

/// Of the pictures that are shown, one for each SPS that can be read.
std::vector<PictureSize> pictureSizes(const ParameterSets& sets, const VideoCodec& codec) {
  std::vector<PictureSize> sizes;
  for (const Bytes& sps : sets.spsRbspArray) {
    if (auto size = codec.shownSize(sps)) sizes.push_back(*size);
  }
  return sizes;
}

BitstreamFacts readBitstream(FileHandle& file, MP4SampleTableParser table, const VideoCodec& codec) {
  BitstreamFacts facts;
  try {
    ParameterScan scan(codec, ParameterScan::Purpose::extraction, std::move(table));
    facts.syncSamples = scan.syncSamples().size();
    facts.nalLengthSize = scan.detectNALLengthSize(file);
    scan.read(file, facts.nalLengthSize);
    const ParameterSets& sets = scan.sets();
    facts.vps = sizesOf(sets.vpsArray);
    facts.sps = sizesOf(sets.spsArray);
    facts.pps = sizesOf(sets.ppsArray);
    facts.pictures = pictureSizes(sets, codec);
    facts.reusesIdentifiers = sets.requiresMultipleSampleEntries;
    facts.changesPictureSize = std::ranges::adjacent_find(facts.pictures, std::not_equal_to()) != facts.pictures.end();
  } catch (const Error& failure) {
    facts.problem = failure.description();
  }
  return facts;
}

}  // namespace

std::optional<VideoFacts> readVideo(FileHandle& file, bool withBitstream) {
  auto moov = MP4BoxUtils::findTopLevelBox(file, "moov");
  if (!moov || !MP4BoxUtils::findTrack(file, *moov, MP4TrackType::video)) return std::nullopt;
  VideoFacts video;
  auto stbl = NALUnitParser::findVideoTrackStbl(file, *moov);
  if (!stbl) {
    video.problem = "the way to the stbl box is broken";
    return video;
  }
  readEntries(file, *stbl, video);
  MP4SampleTableParser table;
  try {
    table.parseSampleTable(file, *stbl);
  } catch (const Error& failure) {
    video.problem = failure.description();
    return video;
  }
  assignSamples(table, video.entries);
  if (!withBitstream) return video;
  const VideoCodec* codec = video.entries.empty() ? nullptr : codecOfTag(video.entries.front().tag);
  if (codec != nullptr) video.bitstream = readBitstream(file, std::move(table), *codec);
  return video;
}

}  // namespace tarn
