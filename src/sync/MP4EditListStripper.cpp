#include "sync/MP4EditListStripper.h"

#include <algorithm>
#include <string_view>

#include "mp4/BoxWalker.h"
#include "mp4/ChunkOffsetTable.h"
#include "mp4/DataExtensions.h"
#include "mp4/MoovCheck.h"
#include "mp4/TimingBoxLayout.h"
#include "platform/Log.h"
#include "platform/TempFile.h"
#include "sync/ErrorTypes.h"
#include "sync/MoovRewrite.h"

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

std::optional<BoxHeader> findDirectChildBox(ByteView box, std::string_view type) {
  BufferBoxWalker walker(box, layout::boxHeaderSize, box.size(), boxwalk::trackBuffer);
  while (auto child = walker.next()) {
    if (child->type == type) return child;
  }
  return std::nullopt;
}

std::optional<BoxHeader> findBoxOffset(ByteView box, std::string_view type) {
  BufferBoxWalker walker(box, 0, box.size(), boxwalk::trackBufferDeep);
  while (auto found = walker.next()) {
    if (found->type == type) return found;
  }
  return std::nullopt;
}

bool isAudio(ByteView trak) {
  if (findBoxOffset(trak, "smhd")) return true;
  auto hdlr = findBoxOffset(trak, "hdlr");
  return hdlr && readUInt32(trak, hdlr->offset + layout::handlerType.offset) == layout::fourCC("soun");
}

/// The bytes of a direct child; nothing when it does not lie within its parent.
std::optional<ByteView> childBytes(ByteView parent, std::string_view type) {
  auto child = findDirectChildBox(parent, type);
  if (!child || child->end() > parent.size()) return std::nullopt;
  return parent.subspan(child->offset, child->size);
}

/// The rows of the track's edit list; nothing when there are none.
std::optional<Rows> extractEditListEntries(ByteView trak) {
  auto edts = childBytes(trak, "edts");
  auto elst = edts ? childBytes(*edts, "elst") : std::nullopt;
  if (!elst || elst->size() < layout::tableHeaderSize) return std::nullopt;
  const auto& fields = layout::editRow(layout::load(elst->data(), layout::version) == 1);
  const size_t present = (elst->size() - layout::tableHeaderSize) / fields.size;
  const size_t count = std::min<size_t>(layout::load(elst->data(), layout::entryCount), present);
  Rows rows;
  for (size_t i = 0; i < count; ++i) {
    const uint8_t* row = elst->data() + layout::tableHeaderSize + i * fields.size;
    rows.push_back({layout::loadSigned(row, fields.duration), layout::loadSigned(row, fields.mediaTime),
                    static_cast<int32_t>(layout::loadSigned(row, fields.mediaRate))});
  }
  if (rows.empty()) return std::nullopt;
  return rows;
}

/// Cuts the edit list out of the first audio track and returns its rows; nothing, and no change, when there is none.
std::optional<Rows> findAndStripAudioEdts(Bytes& moovData) {
  BufferBoxWalker walker(moovData, layout::boxHeaderSize, moovData.size(), boxwalk::trackBuffer);
  while (auto trak = walker.next()) {
    if (trak->type != "trak" || trak->end() > moovData.size()) continue;
    const ByteView bytes = ByteView(moovData).subspan(trak->offset, trak->size);
    if (!isAudio(bytes)) continue;
    auto rows = extractEditListEntries(bytes);
    if (!rows) return std::nullopt;
    log("  Stripping edts box from audio trak ({} bytes)", childBytes(bytes, "edts")->size());
    updateTrackEdts(moovData, trak->offset, {});
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
  if (auto problem = whatForbidsEditing(moovData)) throw MP4EditListStripperError::corruptedMP4(*problem);

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
