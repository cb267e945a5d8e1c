#include "remux/detail/SampleEntryInjection.h"

#include <algorithm>
#include <span>
#include <string>

#include "movie/TrackFields.h"
#include "mp4/BoxLayout.h"
#include "mp4/BoxWalker.h"
#include "mp4/ByteArray.h"
#include "mp4/DataExtensions.h"
#include "platform/Log.h"
#include "remux/detail/CodecWords.h"
#include "remux/detail/DataFormat.h"
#include "remux/detail/MovieAccess.h"
#include "remux/detail/ParentBoxSizes.h"

namespace tarn {
namespace {

using Reason = BoxWalkStop::Reason;

/// The first sample entry of the video track; offsets are counted in the `moov`.
struct Entry {
  size_t trak;
  size_t offset;
  size_t size;
  std::string tag;

  size_t end() const { return offset + size; }
  size_t children() const { return offset + layout::visualEntrySize; }
};

Entry findEntry(ByteView moov, const VideoCodec& codec) {
  if (moov.size() < 8) throw ByteArrayError::invalidOffset();
  MovieBox tree = parseMoov(moov);
  const auto tracks = std::ranges::count(tree.children, "trak", &MovieBox::type);
  if (tracks == 0) throw MP4RemuxError::corruptedMP4("No trak boxes found in moov");
  const MovieBox* trak = findTrack(tree, MP4TrackType::video, edit::remuxing);
  if (!trak) throw wordsFor(codec).noVideoTrack(static_cast<size_t>(tracks));

  size_t stsd = findStsdOffsetInTrak(moov, trak->offset);
  if (readUInt32(moov, stsd + layout::entryCount.offset).value_or(0) == 0) {
    throw MP4RemuxError::corruptedMP4("No sample entries in stsd");
  }
  size_t offset = stsd + layout::tableHeaderSize;
  ByteArray cursor(moov);
  cursor.position = offset;
  Entry entry{.trak = trak->offset, .offset = offset, .size = cursor.readUInt32(), .tag = cursor.readUTF8Bytes(4)};
  if (!codec.accepts(entry.tag)) throw wordsFor(codec).wrongTag(entry.tag);
  if (entry.size < layout::visualEntrySize) throw MP4RemuxError::corruptedMP4("Sample entry too small");
  size_t stsdEnd = std::min<size_t>(stsd + *readUInt32(moov, stsd), moov.size());
  if (entry.end() > stsdEnd) {
    throw MP4RemuxError::corruptedMP4(
        fmt::format("Sample entry at {} of the moov extends beyond stsd: its {} bytes end behind {}", entry.offset,
                    entry.size, stsdEnd));
  }
  return entry;
}

void logTrackType(const Entry& entry, const VideoCodec& codec) {
  const CodecWords& words = wordsFor(codec);
  std::string note;
  if (isEncryptedVideo(entry.tag)) note = " (encrypted)";
  if (entry.tag == codec.tag) note = fmt::format(" (already {}, will rebuild {})", codec.tag, codec.configBox);
  log("{}Verified video track type: {}{}", words.prefix, entry.tag, note);
}

/// The first walk, which only tells of the configuration boxes that are there.
void logOldConfigBoxes(ByteView moov, const Entry& entry, const VideoCodec& codec) {
  const CodecWords& words = wordsFor(codec);
  log("{}Scanning for existing child boxes in range {}..{}", words.prefix, entry.children(), entry.end());
  BufferBoxWalker walker(moov, entry.children(), entry.end(), boxwalk::sampleEntryChildren);
  while (auto child = walker.next()) {
    if (!codec.isConfigBox(child->type)) continue;
    std::string_view what = words.logsDetails ? "decoder config box: " : "";
    log("{}Found existing {}{} at offset {}, size {}", words.prefix, what, child->type, child->offset, child->size);
  }
  if (!words.logsDetails) return;
  const BoxWalkStop& stop = walker.stop();
  if (stop.reason == Reason::badSize) log("Reached end of child boxes during scan (size={})", stop.size);
  if (stop.reason == Reason::badType) logLine("Invalid child box type during scan, stopping");
  if (stop.reason == Reason::overrun) logLine("Child box extends beyond boundary during scan, stopping");
}

/// The second walk: appends the children that stay. What follows the first damaged one is dropped.
void copyChildren(ByteView moov, const Entry& entry, const VideoCodec& codec, Bytes& target) {
  const CodecWords& words = wordsFor(codec);
  BufferBoxWalker walker(moov, entry.children(), entry.end(), boxwalk::sampleEntryChildren);
  while (auto child = walker.next()) {
    ByteView bytes = moov.subspan(static_cast<size_t>(child->offset), static_cast<size_t>(child->size));
    if (codec.isConfigBox(child->type)) {
      std::string_view what = words.logsDetails ? "decoder config box: " : "";
      log("{}Skipping old {}{} ({} bytes)", words.prefix, what, child->type, child->size);
    } else if (child->type == "sinf" && isEncryptedVideo(entry.tag)) {
      ByteWriter(target).bytes(updateFrmaInSinfData(bytes, codec.tag));
      log("Updated sinf box with frma → {} ({} bytes)", codec.tag, child->size);
    } else {
      ByteWriter(target).bytes(bytes);
      log("{}Copied child box: {}, size {}", words.prefix, child->type, child->size);
    }
  }
  if (!words.logsDetails) return;
  const BoxWalkStop& stop = walker.stop();
  if (stop.reason == Reason::badSize) log("Reached end of child boxes (size={})", stop.size);
  if (stop.reason == Reason::badType) log("Invalid child box type '{}', stopping scan", stop.type);
  if (stop.reason == Reason::overrun) logLine("Child box extends beyond sample entry boundary, stopping");
}

void writeTag(std::span<uint8_t> entryBytes, const Entry& entry, const VideoCodec& codec) {
  const CodecWords& words = wordsFor(codec);
  if (isEncryptedVideo(entry.tag)) {
    log("Keeping {} codec tag (encrypted video)", entry.tag);
    return;
  }
  std::ranges::copy(bytesOf(codec.tag), entryBytes.subspan(layout::boxType.offset).begin());
  if (entry.tag != codec.tag) {
    log("{}Changed codec tag: {} → {}", words.prefix, entry.tag, codec.tag);
  } else {
    log("{}Keeping codec tag: {} (rebuilt {}{})", words.prefix, codec.tag, codec.configBox,
        words.logsDetails ? " with complete parameter sets" : "");
  }
}

Bytes buildEntry(ByteView moov, const Entry& entry, ByteView configBox, const VideoCodec& codec) {
  const CodecWords& words = wordsFor(codec);
  Bytes result;
  ByteWriter(result).bytes(moov.subspan(entry.offset, layout::visualEntrySize)).bytes(configBox);
  log("{}Injected new {} box ({} bytes)", words.prefix, codec.configBox, configBox.size());
  copyChildren(moov, entry, codec, result);
  if (result.size() > UINT32_MAX) throw MP4RemuxError::corruptedMP4("Sample entry does not fit its size field");
  writeUInt32(result, static_cast<uint32_t>(result.size()), 0);
  writeTag(result, entry, codec);
  return result;
}

}  // namespace

Bytes injectConfigBoxIntoMoov(ByteView moov, ByteView configBox, const VideoCodec& codec) {
  const CodecWords& words = wordsFor(codec);
  Entry entry = findEntry(moov, codec);
  logTrackType(entry, codec);
  logOldConfigBoxes(moov, entry, codec);
  Bytes newEntry = buildEntry(moov, entry, configBox, codec);
  int64_t delta = static_cast<int64_t>(newEntry.size()) - static_cast<int64_t>(entry.size);
  log("{}New sample entry size: {} (was {})", words.prefix, newEntry.size(), entry.size);
  log("{}Net size change: {} bytes{}", words.prefix, delta,
      words.logsDetails ? fmt::format(" (old: {}, new: {})", entry.size, newEntry.size()) : "");

  Bytes result;
  result.reserve(moov.size() - entry.size + newEntry.size());
  ByteWriter(result).bytes(moov.first(entry.offset)).bytes(newEntry).bytes(moov.subspan(entry.end()));
  if (delta != 0) {
    updateParentBoxSizes(result, delta, entry.trak);
  } else {
    log("{}Sample entry size unchanged, skipping parent box updates", words.prefix);
  }
  return result;
}

Bytes updateFrmaInSinfData(ByteView sinfData, std::string_view targetCodec) {
  Bytes result(sinfData.begin(), sinfData.end());
  if (auto old = replaceDataFormat(result, targetCodec)) {
    log("    Updated frma data_format: {} → {}", *old, targetCodec);
  }
  return result;
}

}  // namespace tarn
