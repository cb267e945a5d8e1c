#include "remux/detail/SampleTableReplacement.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "movie/TrackFields.h"
#include "mp4/BoxLayout.h"
#include "mp4/BoxWalker.h"
#include "mp4/DataExtensions.h"
#include "mp4/MP4RemuxError.h"
#include "platform/Log.h"
#include "remux/detail/MovieAccess.h"
#include "remux/detail/ParentBoxSizes.h"

namespace tarn {
namespace {

/// What becomes of a child of the `stbl`.
enum class Fate { isNewStsd, isNewStsc, isNewChunkOffsets, isLeftOut, stays };

/// Calls `visit(fate, header)` for each child up to the first damaged one.
template <typename Visit>
void visitChildren(ByteView stbl, Visit visit) {
  bool hasChunkOffsets = false;
  BufferBoxWalker walker(stbl, 8, stbl.size(), boxwalk::tableChildren);
  while (auto child = walker.next()) {
    Fate fate = Fate::stays;
    if (child->type == "stsd") fate = Fate::isNewStsd;
    if (child->type == "stsc") fate = Fate::isNewStsc;
    if (child->type == "stco" || child->type == "co64") {
      fate = hasChunkOffsets ? Fate::isLeftOut : Fate::isNewChunkOffsets;
      hasChunkOffsets = true;
    }
    visit(fate, *child);
  }
}

ByteView bytesOf(const BoxHeader& box, ByteView data) {
  return data.subspan(static_cast<size_t>(box.offset), static_cast<size_t>(box.size));
}

void writeReplacement(Bytes& stbl, const BoxHeader& old, ByteView replacement) {
  ByteWriter(stbl).bytes(replacement);
  std::string what = old.type;
  if (old.type == "stco" || old.type == "co64") {
    auto newType = replacement.size() >= 8 ? decodeASCII(replacement.subspan(4, 4)) : std::nullopt;
    what += " with " + newType.value_or("unknown");
  }
  log("Replaced {} in original position (new: {} bytes, old: {} bytes)", what, replacement.size(), old.size);
}

Bytes buildStsdBox(const std::vector<Bytes>& entries) {
  uint64_t size = layout::tableHeaderSize;
  for (const Bytes& entry : entries) size += entry.size();
  if (size > UINT32_MAX) throw MP4RemuxError::corruptedMP4("Sample entries do not fit an stsd");
  Bytes box;
  box.reserve(size);
  ByteWriter writer(box);
  writer.uint32(static_cast<uint32_t>(size)).text("stsd").uint32(0).uint32(static_cast<uint32_t>(entries.size()));
  for (const Bytes& entry : entries) writer.bytes(entry);
  return box;
}

/// The video track and its whole `stbl`.
struct VideoTable {
  const MovieBox& trak;
  const MovieBox& stbl;
};

VideoTable requireVideoTable(MovieBox& moov) {
  const auto tracks = std::ranges::count(moov.children, "trak", &MovieBox::type);
  if (tracks == 0) throw MP4RemuxError::corruptedMP4("No trak found in moov");
  const MovieBox* trak = findTrack(moov, MP4TrackType::video, edit::remuxing);
  if (!trak) {
    throw MP4RemuxError::corruptedMP4(
        fmt::format("Video trak not found in moov (only found {} non-video tracks)", tracks));
  }
  const MovieBox* box = trak;
  std::string_view parent = "trak";
  for (std::string_view type : {"mdia", "minf", "stbl"}) {
    box = box->find({type});
    if (!box) throw MP4RemuxError::corruptedMP4(fmt::format("{} not found in video {}", type, parent));
    parent = type;
  }
  if (box->isCut) throw MP4RemuxError::corruptedMP4("stbl extends beyond moov");
  return {*trak, *box};
}

}  // namespace

uint64_t sizeOfNewStbl(ByteView stbl, uint64_t stsd, uint64_t stsc, uint64_t chunkOffsets) {
  uint64_t size = 8;
  visitChildren(stbl, [&](Fate fate, const BoxHeader& child) {
    switch (fate) {
      case Fate::isNewStsd:
        size += stsd;
        break;
      case Fate::isNewStsc:
        size += stsc;
        break;
      case Fate::isNewChunkOffsets:
        size += chunkOffsets;
        break;
      case Fate::isLeftOut:
        break;
      case Fate::stays:
        size += child.size;
    }
  });
  return size;
}

BoxHeader findStblBoxInMoov(ByteView moov) {
  MovieBox tree = parseMoov(moov);
  const MovieBox& stbl = requireVideoTable(tree).stbl;
  return {.offset = stbl.offset, .size = stbl.oldSize, .type = stbl.type};
}

Bytes extractStsdBoxFromMoov(ByteView moov) {
  MovieBox tree = parseMoov(moov);
  const MovieBox* stsd = requireVideoTable(tree).stbl.find({"stsd"});
  if (!stsd || stsd->isCut) throw MP4RemuxError::corruptedMP4("stsd not found in stbl");
  return stsd->bytes();
}

Bytes replaceBoxesInStbl(ByteView stblData, ByteView newStsd, ByteView newStsc, ByteView newChunkOffset) {
  Bytes stbl;
  uint64_t size = sizeOfNewStbl(stblData, newStsd.size(), newStsc.size(), newChunkOffset.size());
  if (size > UINT32_MAX) throw MP4RemuxError::corruptedMP4("stbl does not fit its size field");
  stbl.reserve(size);
  ByteWriter(stbl).uint32(static_cast<uint32_t>(size)).text("stbl");
  visitChildren(stblData, [&](Fate fate, const BoxHeader& child) {
    switch (fate) {
      case Fate::isNewStsd:
        writeReplacement(stbl, child, newStsd);
        break;
      case Fate::isNewStsc:
        writeReplacement(stbl, child, newStsc);
        break;
      case Fate::isNewChunkOffsets:
        writeReplacement(stbl, child, newChunkOffset);
        break;
      case Fate::isLeftOut:
        log("Skipping duplicate chunk offset box: {} (already replaced)", child.type);
        break;
      case Fate::stays:
        ByteWriter(stbl).bytes(bytesOf(child, stblData));
    }
  });
  return stbl;
}

Bytes buildMoovWithMultipleEntries(ByteView originalMoov, const std::vector<Bytes>& newSampleEntries,
                                   ByteView newStscBox, ByteView newChunkOffsetBox) {
  MovieBox tree = parseMoov(originalMoov);
  const auto& [trak, old] = requireVideoTable(tree);
  logLine("NOTE: Preserving original tkhd dimensions for dynamic resolution video");
  const Bytes stbl = replaceBoxesInStbl(originalMoov.subspan(old.offset, old.oldSize), buildStsdBox(newSampleEntries),
                                        newStscBox, newChunkOffsetBox);
  Bytes moov;
  moov.reserve(originalMoov.size() - old.oldSize + stbl.size());
  ByteWriter(moov)
      .bytes(originalMoov.first(old.offset))
      .bytes(stbl)
      .bytes(originalMoov.subspan(old.offset + old.oldSize));
  const auto growth = static_cast<int64_t>(stbl.size()) - static_cast<int64_t>(old.oldSize);
  if (growth != 0) updateParentBoxSizesForStbl(moov, growth, trak.offset);
  return moov;
}

}  // namespace tarn
