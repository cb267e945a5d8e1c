#include "remux/detail/VideoEntries.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "mp4/BoxWalker.h"
#include "mp4/DataExtensions.h"
#include "parameters/AVCConfigurationBox.h"
#include "parameters/HEVCConfigurationBox.h"
#include "parameters/SetRules.h"
#include "remux/VisualSampleEntry.h"
#include "remux/detail/RemuxCodec.h"

namespace tarn {
namespace {

/// Bounds memory: entries take some hundred bytes each.
constexpr uint64_t largestStsd = 16 << 20;

std::string counted(size_t count, std::string_view what) {
  return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

void readRecord(ByteView contents, const RemuxCodec& codec, VideoEntry& entry) {
  try {
    codec.readRecord(contents, entry);
    entry.hasRecord = true;
  } catch (const ConfigurationBoxError&) {
    // A damaged record has no sets.
  }
}

VideoEntry readEntry(ByteView stsd, const BoxHeader& header, const RemuxCodec& codec) {
  VideoEntry entry{.tag = header.type};
  const auto end = static_cast<size_t>(std::min<uint64_t>(header.end(), stsd.size()));
  const auto start = static_cast<size_t>(header.offset) + visualSampleEntryFixedSize;
  BufferBoxWalker walker(stsd, start, end, boxwalk::openChildren);
  while (auto child = walker.next()) {
    if (child->type != codec.configBox || child->end() > end || entry.hasRecord) continue;
    const auto contents = static_cast<size_t>(child->headerSize);
    readRecord(stsd.subspan(static_cast<size_t>(child->offset), static_cast<size_t>(child->size)).subspan(contents),
               codec, entry);
  }
  return entry;
}

}  // namespace

void readHEVCRecord(ByteView contents, VideoEntry& entry) {
  const HEVCDecoderConfigurationRecord record = readHvcC(contents);
  ParameterSetCollector collector(hevcReadableSets);
  for (const auto& array : record.arrays) {
    if (hevcNALCodec.parameterSetKind(array.nalUnitType)) {
      for (const Bytes& unit : array.nalUnits) collector.processNALUnit(unit);
    } else if (!array.nalUnits.empty()) {
      bool isSEI = array.nalUnitType == 39 || array.nalUnitType == 40;
      entry.others.push_back(counted(array.nalUnits.size(),
                                     isSEI ? "SEI message" : fmt::format("NAL unit of type {}", array.nalUnitType)));
    }
  }
  entry.sets = std::move(collector).take();
  entry.nalLengthSize = record.lengthSizeMinusOne + 1;
}

void readAVCRecord(ByteView contents, VideoEntry& entry) {
  const AVCDecoderConfigurationRecord record = readAvcC(contents);
  ParameterSetCollector collector(avcReadableSets);
  for (const auto* units : {&record.spsArray, &record.ppsArray}) {
    for (const Bytes& unit : *units) collector.processNALUnit(unit);
  }
  entry.sets = std::move(collector).take();
  entry.nalLengthSize = record.lengthSizeMinusOne + 1;
  if (!record.spsExtensionArray.empty()) {
    entry.others.push_back(counted(record.spsExtensionArray.size(), "SPS extension"));
  }
}

std::vector<VideoEntry> readVideoEntries(FileHandle& file, const MP4BoxInfo& stsd, const RemuxCodec& codec) {
  file.seek(stsd.offset);
  const Bytes bytes = file.read(static_cast<size_t>(std::min(stsd.size, largestStsd)));
  const size_t first = static_cast<size_t>(stsd.headerSize) + stsdEntriesInBox - 8;
  const uint32_t count = readUInt32(bytes, first - 4).value_or(0);
  std::vector<VideoEntry> entries;
  BufferBoxWalker walker(bytes, first, bytes.size(), boxwalk::movieBuffer);
  while (entries.size() < count) {
    auto header = walker.next();
    if (!header) break;
    entries.push_back(readEntry(bytes, *header, codec));
    entries.back().offset = stsd.offset + header->offset;
  }
  return entries;
}

}  // namespace tarn
