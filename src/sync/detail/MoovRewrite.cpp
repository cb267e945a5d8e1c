#include "sync/detail/MoovRewrite.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <limits>
#include <span>
#include <string>
#include <vector>

#include "mp4/BoxLayout.h"
#include "platform/Log.h"
#include "sync/ErrorTypes.h"
#include "sync/MP4AVSync.h"
#include "sync/detail/MovieLevels.h"

namespace tarn {
namespace {

/// Gives a box another size; one whose size field is 0 reaches to the end of its parent anyway.
void resizeBox(Bytes& moovData, uint64_t offset, int64_t change) {
  uint64_t size = layout::load(moovData.data() + offset, layout::boxSize);
  if (size == 0) return;
  size += static_cast<uint64_t>(change);
  if (size > std::numeric_limits<uint32_t>::max()) throw AVSyncError::fixError("A box would pass 4 GiB");
  layout::store(moovData.data() + offset, layout::boxSize, size);
}

/// Puts `replacement` in the place of so many bytes and resizes the boxes around them.
int64_t splice(Bytes& moovData, uint64_t position, uint64_t removed, ByteView replacement,
               const std::vector<BoxHeader>& around) {
  for (const BoxHeader& box : around) {
    if (position > box.end() || removed > box.end() - position || box.end() > moovData.size()) {
      throw AVSyncError::fixError("A box reaches over the end of its " + box.type);
    }
  }
  int64_t change = static_cast<int64_t>(replacement.size()) - static_cast<int64_t>(removed);
  if (change != 0) {
    for (const BoxHeader& box : around) resizeBox(moovData, box.offset, change);
  }
  auto place = moovData.begin() + static_cast<ptrdiff_t>(position);
  auto overwritten = static_cast<ptrdiff_t>(std::min<uint64_t>(removed, replacement.size()));
  std::copy_n(replacement.begin(), overwritten, place);
  if (change < 0) {
    moovData.erase(place + overwritten, place + static_cast<ptrdiff_t>(removed));
  } else {
    moovData.insert(place + overwritten, replacement.begin() + overwritten, replacement.end());
  }
  return change;
}

/// Writes a duration into a header whose version byte chooses the field.
void storeDuration(Bytes& moovData, const BoxHeader& header, const layout::Field& field32, const layout::Field& field64,
                   int64_t duration) {
  const uint64_t present = moovData.size() - fieldBase(header);
  uint8_t* base = moovData.data() + fieldBase(header);
  if (present < layout::version.end()) return;
  if (layout::load(base, layout::version) != 0) {
    if (present >= field64.end()) layout::store(base, field64, static_cast<uint64_t>(duration));
  } else if (present >= field32.end()) {
    auto clamped = std::clamp<int64_t>(duration, 0, std::numeric_limits<uint32_t>::max());
    layout::store(base, field32, static_cast<uint64_t>(clamped));
  }
}

void storeTrackDuration(Bytes& moovData, const BoxHeader& trak, int64_t duration) {
  auto tkhd = findChild(moovData, trak, {"tkhd"});
  if (tkhd) storeDuration(moovData, *tkhd, layout::trackDuration32, layout::trackDuration64, duration);
}

/// The one track with this number.
BoxHeader trakWithID(const Bytes& moovData, uint32_t trackID) {
  auto traks = childrenOfType(moovData, wholeBox(moovData, "moov"), "trak");
  std::erase_if(traks, [&](const BoxHeader& trak) { return findTrackID(moovData, trak) != trackID; });
  if (traks.size() != 1)
    throw AVSyncError::fixError(fmt::format("{} tracks have the number {}", traks.size(), trackID));
  return traks.front();
}

BoxHeader trakAt(const Bytes& moovData, uint64_t offset) {
  auto traks = childrenOfType(moovData, wholeBox(moovData, "moov"), "trak");
  auto trak = std::ranges::find(traks, offset, &BoxHeader::offset);
  if (trak == traks.end()) throw AVSyncError::fixError("A trak does not end within the moov");
  return *trak;
}

void storeMoovSize(Bytes& moovData) {
  if (moovData.size() > std::numeric_limits<uint32_t>::max()) throw AVSyncError::fixError("The moov would pass 4 GiB");
  layout::store(moovData.data(), layout::boxSize, moovData.size());
}

/// The boxes from a `trak` down to its `stbl`; none when there is no `stbl`.
std::vector<BoxHeader> sampleTablePath(ByteView moovData, const BoxHeader& trak) {
  std::vector<BoxHeader> path{trak};
  for (const char* type : {"mdia", "minf", "stbl"}) {
    auto child = findChild(moovData, path.back(), {type});
    if (!child) return {};
    path.push_back(*std::move(child));
  }
  return path;
}

/// The path of the track that holds this place; none when no track does.
std::vector<BoxHeader> sampleTableAround(ByteView moovData, uint64_t position) {
  for (const BoxHeader& trak : childrenOfType(moovData, wholeBox(moovData, "moov"), "trak")) {
    if (position >= trak.offset && position < trak.end()) return sampleTablePath(moovData, trak);
  }
  return {};
}

/// Returns by how many bytes the buffer has grown.
int64_t replaceCtts(Bytes& moovData, uint64_t position, uint64_t size, ByteView newCtts) {
  auto path = sampleTableAround(moovData, position);
  auto old = path.empty() ? std::nullopt : findChild(moovData, path.back(), {"ctts"});
  if (!old || old->offset != position || old->size != size) throw AVSyncError::fixError("No ctts at its place");
  int64_t change = splice(moovData, position, size, newCtts, path);
  if (change == 0) {
    log("MP4AVSyncFixer: Replaced CTTS v0 with v1 (in-place, no size change)");
  } else {
    log("MP4AVSyncFixer: Replaced CTTS v0 with v1 (size delta: {})", change);
  }
  return change;
}

/// The chunk offset boxes of all tracks.
std::vector<BoxHeader> chunkOffsetBoxes(ByteView moovData) {
  std::vector<BoxHeader> boxes;
  for (const BoxHeader& trak : childrenOfType(moovData, wholeBox(moovData, "moov"), "trak")) {
    const auto path = sampleTablePath(moovData, trak);
    auto table = path.empty() ? std::nullopt : findChild(moovData, path.back(), {"stco", "co64"});
    if (table) boxes.push_back(*std::move(table));
  }
  return boxes;
}

void adjustStcoAtOffset(Bytes& moovData, const BoxHeader& box, const ChunkOffsetShift& shift) {
  if (moovData.size() - box.offset < layout::tableHeaderSize) {
    log("WARNING: stco offset {} out of bounds", box.offset);
    return;
  }
  const uint32_t count = layout::load32(moovData.data() + box.offset, layout::entryCount);
  log("Adjusting {} at offset {}: {} chunk offsets by {} bytes", box.type, box.offset, count, shift.delta);
  ChunkOffsetTable::adjustTableInPlace(moovData, box.offset, shift, box.type == "co64");
  log("Successfully adjusted {} chunk offsets in {}", count, box.type);
}

}  // namespace

Bytes edtsOf(const std::vector<EditListEntry>& entries) {
  std::vector<AVSyncElstEntry> rows;
  for (const EditListEntry& entry : entries) rows.push_back({entry.duration, entry.mediaTime, entry.mediaRate});
  std::array<uint8_t, 128> buffer{};
  const int32_t size = avsync_write_edts_box(rows.data(), static_cast<int32_t>(rows.size()), buffer.data(),
                                             static_cast<int32_t>(buffer.size()));
  return size < 1 ? Bytes() : Bytes(buffer.begin(), buffer.begin() + size);
}

int64_t updateTrackEdts(Bytes& moovData, size_t trakOffset, ByteView newEdtsData) {
  const BoxHeader trak = trakAt(moovData, trakOffset);
  uint64_t insertionPoint = trak.offset + static_cast<uint64_t>(trak.headerSize);
  auto walker = childWalker(moovData, trak);
  while (auto child = walker.next()) {
    if (child->type == "edts") return splice(moovData, child->offset, child->size, newEdtsData, {trak});
    if (child->type == "tkhd") insertionPoint = child->end();
  }
  return splice(moovData, insertionPoint, 0, newEdtsData, {trak});
}

int64_t applyTables(Bytes& moovData, const MP4BoxInfo& moovBox, const MP4BoxInfo& videoTrakBox,
                    const std::optional<MP4BoxInfo>& audioTrakBox, const MoovEdits& edits) {
  struct TrackEdit {
    uint64_t trakOffset;
    ByteView edts;
  };
  std::vector<TrackEdit> tracks;
  if (edits.videoEdtsData) tracks.push_back({videoTrakBox.offset - moovBox.offset, *edits.videoEdtsData});
  if (edits.audioEdtsData && audioTrakBox) {
    tracks.push_back({audioTrakBox->offset - moovBox.offset, *edits.audioEdtsData});
  }

  int64_t growth = 0;
  if (edits.convertedCttsData && edits.originalCttsSize != 0 && edits.originalCttsOffset > moovBox.offset) {
    uint64_t position = edits.originalCttsOffset - moovBox.offset;
    growth = replaceCtts(moovData, position, edits.originalCttsSize, *edits.convertedCttsData);
    for (TrackEdit& track : tracks) {
      if (track.trakOffset > position) track.trakOffset += static_cast<uint64_t>(growth);
    }
  }
  // From the back, so that the place of the other track is still the one that it had in the file.
  std::ranges::sort(tracks, std::greater(), &TrackEdit::trakOffset);
  for (const TrackEdit& track : tracks) growth += updateTrackEdts(moovData, track.trakOffset, track.edts);

  storeMoovSize(moovData);
  return growth;
}

int64_t applyOrder(Bytes& moovData, const SyncFixOrder& order) {
  int64_t growth = 0;
  for (const SyncFixOrder::Track& track : order.tracks) {
    const uint64_t trak = trakWithID(moovData, track.trackID).offset;
    growth += updateTrackEdts(moovData, trak, edtsOf(track.list.rows));
    storeTrackDuration(moovData, trakAt(moovData, trak), track.list.trackDuration);
    log("MP4AVSyncFixer: Updated tkhd.duration of track {} to {}", track.trackID, track.list.trackDuration);
  }
  updateMvhdDuration(moovData, order.movieDuration);
  log("MP4AVSyncFixer: Updated mvhd.duration to {}", order.movieDuration);
  storeMoovSize(moovData);
  return growth;
}

void updateTkhdDuration(Bytes& moovData, std::string_view trackType, int64_t duration) {
  for (const BoxHeader& trak : childrenOfType(moovData, wholeBox(moovData, "moov"), "trak")) {
    if (findHandlerType(moovData, trak) == trackType) return storeTrackDuration(moovData, trak, duration);
  }
}

void updateMvhdDuration(Bytes& moovData, int64_t duration) {
  auto mvhd = findChild(moovData, wholeBox(moovData, "moov"), {"mvhd"});
  if (mvhd) {
    storeDuration(moovData, *mvhd, layout::timeHeader32.duration, layout::timeHeader64.duration, duration);
  }
}

void adjustChunkOffsets(Bytes& moovData, const ChunkOffsetShift& shift) {
  for (const BoxHeader& box : chunkOffsetBoxes(moovData)) adjustStcoAtOffset(moovData, box, shift);
}

}  // namespace tarn
