#include <fmt/format.h>

#include <algorithm>
#include <functional>

#include "mp4/BoxLayout.h"
#include "mp4/BoxWalker.h"
#include "mp4/DataExtensions.h"
#include "platform/Log.h"
#include "platform/TempFile.h"
#include "sync/ErrorTypes.h"
#include "sync/MP4AVSyncFixer.h"
#include "sync/detail/MovieLevels.h"
#include "sync/detail/SourceFile.h"

namespace tarn {
namespace {

Bytes readMoov(FileManager& files, const Path& fileURL, const MP4BoxInfo& moovBox) {
  auto file = openTrackFile(files, fileURL, OpenMode::reading, "Cannot open file for reading");
  const auto failure = AVSyncError::fileHandleError("Cannot read moov box");
  try {
    file->seek(moovBox.offset);
    Bytes moov = file->read(moovBox.size);
    if (moov.size() < layout::boxHeaderSize) throw failure;
    return moov;
  } catch (const PosixError&) {
    throw failure;
  }
}

/// Where media data lie, seen from the `moov`.
struct MediaPlaces {
  bool isAhead = false;
  bool isBehind = false;
};

/// True when the bytes at the end of a walk are too few for a box, and not boxes that could not be read.
bool isTooShortForABox(FileHandle& file, uint64_t offset, uint64_t length) {
  constexpr uint32_t longSize = 1;
  const uint64_t left = length - std::min(offset, length);
  if (left < layout::boxHeaderSize || left >= 2 * layout::boxHeaderSize) return left < layout::boxHeaderSize;
  file.seek(offset);
  return readUInt32(file.read(layout::boxHeaderSize), 0) == longSize;
}

MediaPlaces findMedia(FileManager& files, const Path& fileURL, const MP4BoxInfo& moovBox) {
  auto file = openTrackFile(files, fileURL, OpenMode::reading, "Cannot open file for reading");
  const auto failure = AVSyncError::fileHandleError("Cannot read the boxes around the moov");
  try {
    MediaPlaces places;
    const uint64_t length = file->seekToEnd();
    FileBoxWalker walker(*file, 0, length, boxwalk::topLevel);
    while (auto box = walker.next()) {
      if (box->type == "mdat") (box->offset < moovBox.offset ? places.isAhead : places.isBehind) = true;
      if (box->size < layout::boxHeaderSize) return places;
    }
    const BoxWalkStop& stop = walker.stop();
    if (stop.reason == BoxWalkStop::Reason::unreadable && !isTooShortForABox(*file, stop.offset, length)) throw failure;
    return places;
  } catch (const PosixError&) {
    throw failure;
  }
}

/// Chunk offsets follow the media that stand behind the `moov`.
void followMedia(FileManager& files, const Path& fileURL, const MP4BoxInfo& moovBox, Bytes& moov, int64_t growth) {
  if (growth == 0) return;
  const MediaPlaces media = findMedia(files, fileURL, moovBox);
  if (!media.isBehind) return;
  log("MP4AVSyncFixer: Moov before mdat - adjusting chunk offsets by {}", growth);
  adjustChunkOffsets(moov, {.delta = growth, .movesFrom = media.isAhead ? moovBox.end() : 0});
}

void copyData(FileHandle& source, FileHandle& destination, uint64_t size) {
  if (source.copyRange(destination, size) < size) {
    throw AVSyncError::fileHandleError("Failed to read chunk during copy");
  }
}

/// Writes the file anew around another `moov`; returns what was taken over.
std::vector<CopiedRange> writeAround(FileManager& files, const Path& fileURL, const MP4BoxInfo& moovBox,
                                     const Bytes& moov, const Path& target) {
  auto source = openTrackFile(files, fileURL, OpenMode::reading, "Cannot open original file");
  auto destination = openTrackFile(files, target, OpenMode::creating, "Cannot create temp file");
  const uint64_t end = source->seekToEnd();
  std::vector<CopiedRange> copied;
  source->seek(0);
  copyData(*source, *destination, moovBox.offset);
  if (moovBox.offset > 0) copied.push_back({0, 0, moovBox.offset});
  destination->write(moov);
  if (moovBox.end() < end) {
    source->seek(moovBox.end());
    copyData(*source, *destination, end - moovBox.end());
    copied.push_back({moovBox.end(), moovBox.offset + moov.size(), end - moovBox.end()});
  }
  return copied;
}

/// Lets `edit` change the `moov` and say by how much it has grown, and puts it into the file. False when nothing has
/// changed.
bool rewriteMoov(FileManager& files, const Path& fileURL, const MP4BoxInfo& moovBox,
                 const std::function<int64_t(Bytes&)>& edit, NamesInTheMaking* names, const RewriteCheck& check) {
  const Bytes before = readMoov(files, fileURL, moovBox);
  if (moovBox.headerSize != layout::boxHeaderSize) {
    throw AVSyncError::fixError(fmt::format("The moov box at {} has a 64-bit size", moovBox.offset));
  }
  requireEditable(before, moovBox.offset);
  Bytes moov = before;
  const int64_t growth = edit(moov);
  if (moov == before) {
    log("MP4AVSyncFixer: The moov stays as it is");
    return false;
  }
  followMedia(files, fileURL, moovBox, moov, growth);

  const Path target = fileURL.parent_path() / (makeUUID() + ".mp4.tmp");
  std::optional<NamesInTheMaking::Hold> hold;
  if (names) hold.emplace(names->hold(target));
  TempFile temp(files, target);
  const auto copied = writeAround(files, fileURL, moovBox, moov, target);
  if (check) check(target, copied);
  files.replaceItem(fileURL, target);
  log("MP4AVSyncFixer: Moov rewritten with both edts (total size delta: {})", growth);
  return true;
}

/// All that `edits` asks for; returns by how many bytes the `moov` has grown.
int64_t applyEdits(Bytes& moov, const MP4BoxInfo& moovBox, const MP4BoxInfo& videoTrakBox,
                   const std::optional<MP4BoxInfo>& audioTrakBox, const MoovEdits& edits) {
  const int64_t growth = applyTables(moov, moovBox, videoTrakBox, audioTrakBox, edits);
  if (edits.videoTrackDuration > 0) {
    updateTkhdDuration(moov, handlerTypeText(MP4TrackType::video), edits.videoTrackDuration);
    log("MP4AVSyncFixer: Updated video tkhd.duration to {}", edits.videoTrackDuration);
  }
  if (edits.audioTrackDuration > 0) {
    updateTkhdDuration(moov, handlerTypeText(MP4TrackType::audio), edits.audioTrackDuration);
    log("MP4AVSyncFixer: Updated audio tkhd.duration to {}", edits.audioTrackDuration);
  }
  const int64_t movieDuration = std::max(edits.videoTrackDuration, edits.audioTrackDuration);
  if (movieDuration > 0) {
    updateMvhdDuration(moov, movieDuration);
    log("MP4AVSyncFixer: Updated mvhd.duration to {}", movieDuration);
  }
  return growth;
}

}  // namespace

bool MP4AVSyncFixer::rewriteMoovWithBothEdts(FileManager& files, const Path& fileURL, const MP4BoxInfo& moovBox,
                                             const MP4BoxInfo& videoTrakBox,
                                             const std::optional<MP4BoxInfo>& audioTrakBox, const MoovEdits& edits,
                                             NamesInTheMaking* names, const RewriteCheck& check) {
  const auto edit = [&](Bytes& moov) { return applyEdits(moov, moovBox, videoTrakBox, audioTrakBox, edits); };
  return rewriteMoov(files, fileURL, moovBox, edit, names, check);
}

bool MP4AVSyncFixer::rewriteMoovAsOrdered(FileManager& files, const Path& fileURL, const MP4BoxInfo& moovBox,
                                          const SyncFixOrder& order, NamesInTheMaking* names,
                                          const RewriteCheck& check) {
  const auto edit = [&](Bytes& moov) { return applyOrder(moov, order); };
  return rewriteMoov(files, fileURL, moovBox, edit, names, check);
}

}  // namespace tarn
