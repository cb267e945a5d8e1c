#include "inspect/detail/MovieFacts.h"

#include <fmt/format.h>

#include <algorithm>

#include "mp4/BoxLayout.h"
#include "mp4/BoxWalker.h"
#include "mp4/DataExtensions.h"
#include "mp4/MP4BoxUtils.h"
#include "mp4/TimeHeader.h"
#include "platform/Error.h"

namespace tarn {
namespace {

constexpr size_t smallBox = 4096;  ///< more of a header or of the front of a table is not looked at

/// The front of a box, header included; empty when there is no box.
Bytes frontOf(FileHandle& file, const std::optional<MP4BoxInfo>& box) {
  if (!box) return {};
  file.seek(box->offset);
  return file.read(static_cast<size_t>(std::min<uint64_t>(box->size, smallBox)));
}

/// Tag and picture or sound of the first sample entry (ISO/IEC 14496-12 8.5.2).
void readFirstEntry(ByteView stsd, TrackFacts& track) {
  if (stsd.size() < layout::sampleEntryFormat.end() || layout::load(stsd.data(), layout::entryCount) == 0) return;
  track.codec = decodeUTF8(stsd.subspan(layout::sampleEntryFormat.offset, layout::sampleEntryFormat.width));
  const ByteView entry = stsd.subspan(layout::tableHeaderSize);
  if (track.handler == "vide") {
    if (const auto size = readUInt32(entry, layout::pictureSize.offset)) {
      track.picture = PictureSize{.width = *size >> 16, .height = *size & 0xFFFF};
    }
  } else if (track.handler == "soun") {
    track.channels = layout::loadWithin(entry, layout::audioChannels);
    track.rate = layout::loadWithin(entry, layout::audioRate);
  }
}

TrackFacts readTrack(FileHandle& file, const MP4BoxInfo& trak) {
  TrackFacts track;
  track.handler = MP4BoxUtils::getHandlerType(file, trak).value_or("");
  track.id = readTrackHeader(file, trak).trackID;
  if (const auto mdia = MP4BoxUtils::findChildBox(file, trak, "mdia")) {
    if (const auto clock = readTimeHeader(file, *mdia, "mdhd")) {
      track.timescale = clock->timescale;
      track.duration = static_cast<int64_t>(clock->duration);
      track.lacksDuration = clock->duration == 0;
    }
  }
  const auto tableFront = [&](std::string_view type) {
    return frontOf(file, MP4BoxUtils::findDescendant(file, trak, {"mdia", "minf", "stbl", type}));
  };
  readFirstEntry(tableFront("stsd"), track);
  for (std::string_view type : {"stsz", "stz2"}) {
    if (!track.samples) track.samples = readUInt32(tableFront(type), layout::sampleCount.offset);
  }
  track.lacksDuration = track.lacksDuration && track.samples.value_or(0) > 0;
  return track;
}

std::string whereTheBoxesEnd(const BoxWalkStop& stop, uint64_t fileSize) {
  const uint64_t left = fileSize - std::min(fileSize, stop.offset);
  if (stop.reason == BoxWalkStop::Reason::badSize) {
    return fmt::format("the box at {} has an impossible size ({}); {} bytes are no boxes", stop.offset, stop.size,
                       left);
  }
  return fmt::format("{} bytes at the end, from {} on, are no box", left, stop.offset);
}

}  // namespace

void readTopLevel(FileHandle& file, Inspection& inspection) {
  inspection.size = file.seekToEnd();
  FileBoxWalker walker(file, 0, inspection.size, boxwalk::topLevel);
  while (auto box = walker.next()) {
    if (inspection.boxes.size() == mostListed) {
      inspection.boxesProblem = fmt::format("more than {} boxes; the rest is not listed", mostListed);
      return;
    }
    const uint64_t missing = box->end() - std::min(box->end(), inspection.size);
    inspection.boxes.push_back({box->type, box->offset, box->size, missing});
  }
  if (walker.stop().reason != BoxWalkStop::Reason::endOfLevel) {
    inspection.boxesProblem = whereTheBoxesEnd(walker.stop(), inspection.size);
  }
}

std::vector<TrackFacts> readTracks(FileHandle& file) {
  std::vector<TrackFacts> tracks;
  auto moov = MP4BoxUtils::findTopLevelBox(file, "moov");
  if (!moov) return tracks;
  FileBoxWalker walker(file, moov->contentOffset(), moov->end(), boxwalk::tracks);
  while (auto box = walker.next()) {
    if (tracks.size() == mostListed) break;
    if (box->type == "trak") tracks.push_back(readTrack(file, *box));
  }
  return tracks;
}

}  // namespace tarn
