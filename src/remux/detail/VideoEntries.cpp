#include "remux/detail/VideoEntries.h"

#include <algorithm>
#include <utility>

#include "mp4/BoxLayout.h"
#include "mp4/BoxWalker.h"
#include "mp4/DataExtensions.h"
#include "parameters/HEVCConfigurationBox.h"

namespace tarn {
namespace {

/// Bounds memory: entries take some hundred bytes each.
constexpr uint64_t largestStsd = 16 << 20;

VideoEntry readEntry(ByteView stsd, const BoxHeader& header, const VideoCodec& codec) {
  VideoEntry entry{.tag = header.type};
  const auto end = static_cast<size_t>(std::min<uint64_t>(header.end(), stsd.size()));
  const auto start = static_cast<size_t>(header.offset) + layout::visualEntrySize;
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

void readRecord(ByteView contents, const VideoCodec& codec, VideoEntry& entry) {
  try {
    ConfigurationContents record = codec.readConfigBox(contents);
    entry.sets = readableAmong(record.sets, codec);
    entry.nalLengthSize = record.nalLengthSize;
    entry.others = std::move(record.others);
    entry.hasRecord = true;
  } catch (const ConfigurationBoxError&) {
    // A damaged record has no sets.
  }
}

std::vector<VideoEntry> readVideoEntries(FileHandle& file, const MP4BoxInfo& stsd, const VideoCodec& codec) {
  file.seek(stsd.offset);
  const Bytes bytes = file.read(static_cast<size_t>(std::min(stsd.size, largestStsd)));
  const size_t first = static_cast<size_t>(stsd.headerSize) + layout::tableHeaderSize - layout::boxHeaderSize;
  const uint32_t count = readUInt32(bytes, first - layout::entryCount.width).value_or(0);
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
