#include "sync/MP4EditListStripper.h"

#include <algorithm>

#include "mp4/BoxLayout.h"
#include "mp4/BoxWalker.h"
#include "mp4/ChunkOffsetTable.h"
#include "mp4/EditList.h"
#include "platform/Log.h"
#include "platform/TempFile.h"
#include "sync/ErrorTypes.h"
#include "sync/detail/MoovRewrite.h"
#include "sync/detail/MovieLevels.h"

namespace tarn {
namespace {

using Rows = std::vector<OriginalEditListEntry>;

constexpr uint64_t largestSmallBox = 0xA00000;

/// The top level of a file. The last `moov` is the one that counts.
struct TopLevel {
  std::vector<BoxHeader> boxes;
  std::optional<BoxHeader> moov;
};

TopLevel scan(FileHandle& file, uint64_t length) {
  TopLevel level;
  FileBoxWalker walker(file, 0, length, boxwalk::topLevelScan);
  while (auto box = walker.next()) {
    if (box->type == "moof") {
      log("MP4EditListStripper: Fragmented MP4 detected (moof box found)");
      throw MP4EditListStripperError::fragmentedMP4NotSupported();
    }
    if (box->type == "moov") level.moov = box;
    level.boxes.push_back(*std::move(box));
  }
  if (!level.moov) throw MP4EditListStripperError::corruptedMP4("moov box not found");
  return level;
}

bool isAudio(ByteView moov, const BoxHeader& trak) {
  if (findHandlerType(moov, trak) == handlerTypeText(MP4TrackType::audio)) return true;
  auto mdia = findChild(moov, trak, {"mdia"});
  auto minf = mdia ? findChild(moov, *mdia, {"minf"}) : std::nullopt;
  return minf && findChild(moov, *minf, {"smhd"});
}

/// The rows of the track's edit list; nothing when there are none, or when a box reaches over its parent's end.
std::optional<Rows> extractEditListEntries(ByteView moov, const BoxHeader& trak) {
  auto edts = findChild(moov, trak, {"edts"});
  auto elst = edts && edts->end() <= trak.end() ? findChild(moov, *edts, {"elst"}) : std::nullopt;
  if (!elst || elst->end() > edts->end() || elst->end() - fieldBase(*elst) < layout::tableHeaderSize) {
    return std::nullopt;
  }
  Rows rows = readEditList(moov.first(elst->end()).subspan(fieldBase(*elst)), editlist::stripped);
  if (rows.empty()) return std::nullopt;
  return rows;
}

/// Cuts the edit list out of the first audio track and returns its rows; nothing, and no change, when there is none.
std::optional<Rows> findAndStripAudioEdts(Bytes& moovData) {
  for (const BoxHeader& trak : childrenOfType(moovData, wholeBox(moovData, "moov"), "trak")) {
    if (!isAudio(moovData, trak)) continue;
    auto rows = extractEditListEntries(moovData, trak);
    if (!rows) return std::nullopt;
    const size_t before = moovData.size();
    updateTrackEdts(moovData, trak.offset, {});
    log("  Stripping edts box from audio trak ({} bytes)", before - moovData.size());
    layout::store(moovData.data(), layout::boxSize, moovData.size());
    return rows;
  }
  return std::nullopt;
}

Bytes readMoov(FileHandle& file, const BoxHeader& moov) {
  const auto failure = MP4EditListStripperError::readError("Cannot read moov");
  try {
    file.seek(moov.offset);
    Bytes bytes = file.read(moov.size);
    if (bytes.size() < moov.size) throw failure;
    return bytes;
  } catch (const PosixError&) {
    throw failure;
  }
}

/// Chunk offsets follow the media that stand behind the `moov`; where others stand ahead of it, theirs stay.
void followMedia(Bytes& moovData, int64_t delta, const TopLevel& level) {
  auto hasMedia = [&](bool behind) {
    return std::ranges::any_of(level.boxes, [&](const BoxHeader& box) {
      return box.type == "mdat" && (box.offset > level.moov->offset) == behind;
    });
  };
  if (!hasMedia(true)) return;
  log("MP4EditListStripper: Adjusting chunk offsets by {} bytes", delta);
  ChunkOffsetTable::adjustAllInMoov(moovData, {.delta = delta, .movesFrom = hasMedia(false) ? level.moov->end() : 0});
}

/// Copies a box, or what is there of a small one; a larger one must be there whole.
void copyBox(FileHandle& input, FileHandle& output, const BoxHeader& box) {
  input.seek(box.offset);
  const bool mustBeWhole = box.type == "mdat" || box.size > largestSmallBox;
  const uint64_t copied = input.copyRange(output, box.size);
  if (mustBeWhole && copied < box.size) throw MP4EditListStripperError::readError("Read failed");
  log("MP4EditListStripper: Copied {} ({} bytes)", box.type, box.size);
}

void writeStripped(FileHandle& input, FileHandle& output, const TopLevel& level, const Bytes& moovData) {
  for (const BoxHeader& box : level.boxes) {
    if (box.offset != level.moov->offset) {
      copyBox(input, output, box);
      continue;
    }
    output.write(moovData);
    log("MP4EditListStripper: Wrote modified moov ({} bytes)", moovData.size());
  }
  output.synchronize();
  output.close();
}

std::unique_ptr<FileHandle> openInput(FileManager& files, const Path& path) {
  if (!files.fileExists(path)) throw MP4EditListStripperError::fileNotFound();
  try {
    return files.open(path, OpenMode::reading);
  } catch (const PosixError&) {
    throw MP4EditListStripperError::cannotOpenFile();
  }
}

std::unique_ptr<FileHandle> createOutput(FileManager& files, const Path& path) {
  try {
    return files.open(path, OpenMode::creating);
  } catch (const PosixError&) {
    throw MP4EditListStripperError::cannotCreateOutputFile();
  }
}

}  // namespace

std::optional<Rows> MP4EditListStripper::stripAudioEditList(FileManager& files, const Path& from, const Path& to) {
  auto input = openInput(files, from);
  const uint64_t length = input->seekToEnd();
  log("MP4EditListStripper: Processing {} ({} bytes)", from.filename().string(), length);
  const TopLevel level = scan(*input, length);
  Bytes moovData = readMoov(*input, *level.moov);
  if (level.moov->headerSize != layout::boxHeaderSize) {
    throw MP4EditListStripperError::corruptedMP4("moov box has a 64-bit size field");
  }
  try {
    requireEditable(moovData, level.moov->offset);
  } catch (const AVSyncError& problem) {
    throw MP4EditListStripperError::corruptedMP4(problem.description());
  }

  auto rows = findAndStripAudioEdts(moovData);
  if (!rows) {
    log("MP4EditListStripper: No audio edit list found, copying file unchanged");
    files.copyItem(from, to);
    return std::nullopt;
  }
  log("MP4EditListStripper: Stripped edit list with {} entries", rows->size());
  followMedia(moovData, static_cast<int64_t>(moovData.size()) - static_cast<int64_t>(level.moov->size), level);

  auto output = createOutput(files, to);
  TempFile draft(files, to);
  writeStripped(*input, *output, level, moovData);
  draft.keep();
  log("MP4EditListStripper: Complete - output written to {}", to.filename().string());
  return rows;
}

}  // namespace tarn
