#include "remux/detail/TagRepair.h"

#include <algorithm>
#include <utility>

#include "mp4/BoxLayout.h"
#include "mp4/BoxWalker.h"
#include "mp4/ByteArray.h"
#include "mp4/MP4RemuxError.h"
#include "parameters/VideoCodec.h"
#include "platform/Log.h"
#include "remux/detail/MovieAccess.h"
#include "remux/detail/VideoEntries.h"

namespace tarn {
namespace {

constexpr size_t codecTagRead = 512;
constexpr size_t readBehindEntry = 1040;
constexpr size_t entryInContents = layout::tableHeaderSize - layout::boxHeaderSize;
constexpr uint64_t smallestAvcC = 15;

/// Reads at most `count` bytes of a box's contents from their start.
Bytes readContents(FileHandle& file, const MP4BoxInfo& box, uint64_t count) {
  file.seek(box.contentOffset());
  return file.read(static_cast<size_t>(std::min(count, box.contentSize())));
}

Bytes readContents(FileHandle& file, const MP4BoxInfo& box, uint64_t count, const char* refusal) {
  Bytes contents;
  try {
    contents = readContents(file, box, count);
  } catch (const PosixError&) {
    throw fileHandleError(refusal);
  }
  if (contents.empty()) throw fileHandleError(refusal);
  return contents;
}

MP4BoxInfo requireVideoTrack(FileHandle& file, const MP4BoxInfo& moov) {
  file.seek(moov.contentOffset());
  while (auto trak = MP4BoxUtils::findBoxInContainer(file, moov, "trak")) {
    if (MP4BoxUtils::getHandlerType(file, *trak) == handlerTypeText(MP4TrackType::video)) {
      log("AVC Phase 1: Found video track at offset {}", trak->offset);
      return *trak;
    }
    file.seek(trak->end());
  }
  throw MP4RemuxError::corruptedMP4("Video trak box not found");
}

MP4BoxInfo requireStsd(FileHandle& file) {
  auto moov = MP4BoxUtils::findTopLevelBox(file, "moov");
  if (!moov) throw MP4RemuxError::corruptedMP4("moov box not found");
  MP4BoxInfo box = requireVideoTrack(file, *moov);
  for (const char* type : {"mdia", "minf", "stbl", "stsd"}) {
    auto child = MP4BoxUtils::findChildBox(file, box, type);
    if (!child) throw MP4RemuxError::corruptedMP4(std::string(type) + " box not found");
    box = *child;
  }
  // What reaches over the `moov` is not its own, and is not read.
  uint64_t end = std::max(std::min(box.end(), moov->end()), box.offset);
  box.size = end - box.offset;
  return box;
}

/// The first sample entry. Offsets are counted from the start of the `stsd`'s contents.
struct FirstEntry {
  uint64_t end;
  std::string tag;
  Bytes contents;
};

FirstEntry readFirstEntry(FileHandle& file, const MP4BoxInfo& stsd) {
  Bytes head = readContents(file, stsd, 16, "Cannot read stsd header");
  ByteArray header(head);
  header.skipVersionAndFlags();
  if (header.readUInt32() == 0) throw MP4RemuxError::corruptedMP4("No sample entries in stsd");
  uint64_t size = header.readUInt32();

  Bytes contents = readContents(file, stsd, size + readBehindEntry, "Cannot read stsd box");
  log("AVC Phase 1: Read {} bytes from stsd (entry size: {})", contents.size(), size);
  ByteArray entry(contents);
  entry.position = entryInContents + layout::boxType.offset;
  std::string tag = entry.readUTF8Bytes(4);
  log("AVC Phase 1: Sample entry type '{}', size {}", tag, size);
  return {entryInContents + size, tag, std::move(contents)};
}

void logScanStop(const BoxWalkStop& stop) {
  switch (stop.reason) {
    case BoxWalkStop::Reason::badSize:
      log("AVC Phase 1: Reached end of child boxes (boxSize={})", stop.size);
      break;
    case BoxWalkStop::Reason::badType:
      log("AVC Phase 1: Invalid child box type '{}', stopping scan", stop.type);
      break;
    case BoxWalkStop::Reason::overrun:
      log("AVC Phase 1: Child box '{}' extends beyond sample entry boundary, stopping", stop.type);
      break;
    case BoxWalkStop::Reason::endOfLevel:
    case BoxWalkStop::Reason::unreadable:
      break;
  }
}

/// True for the contents of an `avcC` with at least one SPS and one PPS that a decoder can read.
bool hasParameterSets(ByteView contents) {
  VideoEntry entry;
  readRecord(contents, VideoCodec::avc, entry);
  return isComplete(entry.sets, VideoCodec::avc.nal);
}

/// The size of the entry's first usable `avcC`. A record needs 7 bytes (ISO/IEC 14496-15 5.3.3.1), header apart.
std::optional<uint64_t> findAvcC(const FirstEntry& entry) {
  constexpr size_t start = entryInContents + layout::visualEntrySize;
  log("AVC Phase 1: Scanning for avcC in child boxes region [{}...{}]", start, entry.end);
  BufferBoxWalker walker(entry.contents, start, entry.end, boxwalk::sampleEntryChildren);
  while (auto child = walker.next()) {
    log("AVC Phase 1: Found child box '{}' at offset {}, size {}", child->type, child->offset, child->size);
    if (!VideoCodec::avc.isConfigBox(child->type)) continue;
    if (child->size < smallestAvcC) {
      log("AVC Phase 1: WARNING - Found avcC box but size too small ({} bytes)", child->size);
      continue;
    }
    ByteView box =
        ByteView(entry.contents).subspan(static_cast<size_t>(child->offset), static_cast<size_t>(child->size));
    if (!hasParameterSets(box.subspan(layout::boxHeaderSize))) {
      log("AVC Phase 1: WARNING - Found avcC box without parameter sets ({} bytes)", child->size);
      continue;
    }
    log("AVC Phase 1: Found valid avcC box (size {} bytes)", child->size);
    return child->size;
  }
  logScanStop(walker.stop());
  return std::nullopt;
}

}  // namespace

std::optional<std::string> detectHEVCTag(FileManager& files, const Path& fileURL) {
  auto file = openFile(files, fileURL, OpenMode::reading, "Cannot open file");
  auto moov = MP4BoxUtils::findTopLevelBox(*file, "moov");
  auto trak = moov ? MP4BoxUtils::findTrack(*file, *moov, MP4TrackType::video) : std::nullopt;
  auto stsd = trak ? MP4BoxUtils::findDescendant(*file, *trak, {"mdia", "minf", "stbl", "stsd"}) : std::nullopt;
  return stsd ? readVideoCodecFromStsd(*file, *stsd) : std::nullopt;
}

std::optional<std::string> readVideoCodecFromStsd(FileHandle& file, const MP4BoxInfo& stsd) {
  Bytes contents = readContents(file, stsd, codecTagRead);
  ByteArray cursor(contents);
  cursor.skipVersionAndFlags();
  if (cursor.readUInt32() == 0) return std::nullopt;
  cursor.readUInt32();
  return cursor.readUTF8Bytes(4);
}

bool remuxAVCTag(FileManager& files, const Path& fileURL) {
  auto file = openFile(files, fileURL, OpenMode::updating, "Cannot open file for writing");
  MP4BoxInfo stsd = requireStsd(*file);
  FirstEntry entry = readFirstEntry(*file, stsd);
  const VideoCodec* codec = codecOfTag(entry.tag);
  if (codec == &VideoCodec::hevc) {
    log("AVC Phase 1: Found HEVC codec, not AVC");
    return false;
  }
  if (codec != &VideoCodec::avc) {
    throw MP4RemuxError::unsupportedFormat("Expected avc1 or avc3, found " + entry.tag);
  }
  if (entry.contents.size() < entryInContents + layout::visualEntrySize) {
    throw MP4RemuxError::corruptedMP4("Sample entry too small");
  }

  auto avcCSize = findAvcC(entry);
  if (!avcCSize) {
    log("AVC Phase 1: No valid avcC box found, Phase 2 required");
    return false;
  }
  if (entry.tag == codec->tag) {
    log("AVC Phase 1: Already avc1 with valid avcC ({} bytes), no remuxing needed", *avcCSize);
    return true;
  }
  uint64_t tagOffset = stsd.contentOffset() + entryInContents + layout::boxType.offset;
  file->seek(tagOffset);
  file->write(bytesOf(codec->tag));
  file->synchronize();
  log("AVC Phase 1 SUCCESS: Replaced avc3→avc1 at offset {}", tagOffset);
  log("AVC Phase 1: avcC box present ({} bytes), video is now iOS-compatible", *avcCSize);
  return true;
}

}  // namespace tarn
