#include <algorithm>

#include "mp4/BoxWalker.h"
#include "mp4/MoovCheck.h"
#include "mp4/TimingBoxLayout.h"
#include "platform/Log.h"
#include "platform/TempFile.h"
#include "sync/ErrorTypes.h"
#include "sync/MP4AVSyncFixer.h"
#include "sync/SourceFile.h"

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

MediaPlaces findMedia(FileManager& files, const Path& fileURL, const MP4BoxInfo& moovBox) {
  auto file = openTrackFile(files, fileURL, OpenMode::reading, "Cannot open file for reading");
  MediaPlaces places;
  FileBoxWalker walker(*file, 0, file->seekToEnd(), boxwalk::topLevel);
  while (auto box = walker.next()) {
    if (box->type == "mdat") (box->offset < moovBox.offset ? places.isAhead : places.isBehind) = true;
    if (box->size < layout::boxHeaderSize) break;
  }
  return places;
}

void requireEditable(const Bytes& moov, const MP4BoxInfo& moovBox) {
  if (moovBox.headerSize != layout::boxHeaderSize) throw AVSyncError::fixError("moov box has a 64-bit size field");
  if (auto problem = whatForbidsEditing(moov)) throw AVSyncError::fixError(*problem);
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

/// Writes the file anew around another `moov`.
void writeAround(FileManager& files, const Path& fileURL, const MP4BoxInfo& moovBox, const Bytes& moov,
                 const Path& target) {
  auto source = openTrackFile(files, fileURL, OpenMode::reading, "Cannot open original file");
  auto destination = openTrackFile(files, target, OpenMode::creating, "Cannot create temp file");
  const uint64_t end = source->seekToEnd();
  source->seek(0);
  copyData(*source, *destination, moovBox.offset);
  destination->write(moov);
  if (moovBox.end() < end) {
    source->seek(moovBox.end());
    copyData(*source, *destination, end - moovBox.end());
  }
}

}  // namespace

void MP4AVSyncFixer::rewriteMoovWithBothEdts(FileManager& files, const Path& fileURL, const MP4BoxInfo& moovBox,
                                             const MP4BoxInfo& videoTrakBox,
                                             const std::optional<MP4BoxInfo>& audioTrakBox, const MoovEdits& edits,
                                             NamesInTheMaking* names) {
  Bytes moov = readMoov(files, fileURL, moovBox);
  requireEditable(moov, moovBox);
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
  followMedia(files, fileURL, moovBox, moov, growth);

  const Path target = fileURL.parent_path() / (makeUUID() + ".mp4.tmp");
  std::optional<NamesInTheMaking::Hold> hold;
  if (names) hold.emplace(names->hold(target));
  TempFile temp(files, target);
  writeAround(files, fileURL, moovBox, moov, target);
  files.replaceItem(fileURL, target);
  log("MP4AVSyncFixer: Moov rewritten with both edts (total size delta: {})", growth);
}

}  // namespace tarn
