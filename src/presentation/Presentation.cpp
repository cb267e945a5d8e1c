#include "presentation/Presentation.h"

#include <algorithm>
#include <utility>

#include "mp4/BoxLayout.h"
#include "mp4/BoxWalker.h"
#include "mp4/EditList.h"
#include "mp4/SampleTableBuilders.h"
#include "mp4/TableBox.h"
#include "mp4/TimeHeader.h"
#include "platform/Log.h"
#include "platform/ReadWatch.h"
#include "presentation/detail/LaidEdit.h"
#include "presentation/detail/MetadataPaths.h"
#include "presentation/detail/SampleOrder.h"

namespace tarn {
namespace {

constexpr uint32_t mostTopLevelBoxes = uint32_t{1} << 20;

Error presentationError(const std::string& description) {
  return Error("Presentation", -1, description);
}

struct TopLevel {
  std::optional<MP4BoxInfo> moov;  ///< the first one
  bool hasFragments = false;
};

TopLevel scanTopLevel(FileHandle& file) {
  TopLevel found;
  FileBoxWalker walker(file, 0, file.seekToEnd(), boxwalk::topLevel);
  for (uint32_t i = 0; i < mostTopLevelBoxes && !found.hasFragments; ++i) {
    auto box = walker.next();
    if (!box) break;
    if (box->type == "moov" && !found.moov) found.moov = *box;
    if (box->type == "moof") found.hasFragments = true;
  }
  if (found.moov && MP4BoxUtils::findChildBox(file, *found.moov, "mvex")) found.hasFragments = true;
  return found;
}

void readDescriptions(FileHandle& file, const MP4BoxInfo& stbl, TrackPresentation& track) {
  auto stsd = MP4BoxUtils::findChildBox(file, stbl, "stsd");
  if (!stsd || stsd->contentSize() < TableBox::oneField) return;
  track.sampleDescriptions = TableBox(file, *stsd, TableBox::oneField).field();
  FileBoxWalker entries(file, stsd->contentOffset() + TableBox::oneField, stsd->end(), boxwalk::openChildren);
  if (auto entry = entries.next()) track.codec = entry->type;
}

/// Shows the media as it is: media time is movie time. It begins a whole number of seconds before 0 if pictures
/// are composed before 0, so that both times are exact.
PresentedEdit wholeMedia(uint32_t movieTimescale, const TrackPresentation& track) {
  int64_t seconds = track.mediaStart() < 0 ? -track.mediaStart() / track.timescale + 1 : 0;
  int64_t mediaStart = -seconds * track.timescale;
  return {.movieStart = -seconds * movieTimescale,
          .movieDuration = movieTicks(track.mediaEnd - mediaStart, track.timescale, movieTimescale),
          .mediaStart = mediaStart};
}

/// Fills in what the edits in force show.
void countShown(const SampleOrder& order, uint32_t sampleCount, uint32_t movieTimescale, TrackPresentation& track) {
  PlaceSet shown;
  PlaceSet whole;
  track.shownFrom.reset();
  track.shownTo.reset();
  MovieTime tick = tickOf(movieTimescale);
  for (const LaidEdit& edit : laidEdits(track.edits, movieTimescale, track.timescale)) {
    EditShowing showing = showingOf(order, edit, tick);
    if (showing.shown.isEmpty()) continue;
    shown.add(showing.shown);
    whole.add(showing.whole);
    track.shownFrom = track.shownFrom ? std::min(*track.shownFrom, showing.from) : showing.from;
    track.shownTo = track.shownTo ? std::max(*track.shownTo, showing.to) : showing.to;
  }
  track.samplesShown = shown.count(order);
  track.samplesClipped = track.samplesShown - whole.count(order);
  track.samplesHidden = sampleCount - track.samplesShown;
}

TrackPresentation readTrack(FileHandle& file, const MP4BoxInfo& trak, uint32_t movieTimescale) {
  auto mdia = requireTableBox(file, trak, "mdia");
  auto header = readTimeHeader(file, mdia, "mdhd");
  if (!header || header->timescale == 0) throw sampleTableError("the track has no timescale");
  auto stbl = requireTableBox(file, requireTableBox(file, mdia, "minf"), "stbl");
  SampleLocations locations(file, stbl);
  uint32_t count = locations.countInChunks();
  if (locations.haveOneSize() && count > locations.fileSize()) {
    throw sampleTableError("stsz promises more samples than the file has bytes");
  }
  std::string handler = MP4BoxUtils::getHandlerType(file, trak).value_or("");
  if (handler == "vide" && count > SampleOrder::mostPictures) throw sampleTableError("the track has too many pictures");
  const TrackHeader trackHeader = readTrackHeader(file, trak);
  TrackPresentation track{.trackID = trackHeader.trackID,
                          .handler = handler,
                          .timescale = header->timescale,
                          .isEnabled = trackHeader.isEnabled,
                          .matrix = trackHeader.matrix,
                          .times = SampleTimes(file, stbl, count),
                          .locations = std::move(locations)};
  readDescriptions(file, stbl, track);

  SampleOrder order(track.times, count, handler);
  if (count > 0) track.firstCompositionTime = SampleTimes::Cursor(track.times, 0).time().compositionTime;
  track.smallestCompositionTime = order.smallestCompositionTime();
  track.mediaEnd = order.mediaEnd();
  auto entries = readEditList(file, trak);
  track.hasEditList = !entries.empty();
  if (count > 0) track.damage = damageOf(entries, track.mediaEnd);
  if (track.hasEditList && track.damage == EditListDamage::none) {
    track.edits = presentedEdits(entries, movieTimescale, track.timescale, track.mediaEnd);
    countShown(order, count, movieTimescale, track);
    if (track.samplesShown > 0 || count == 0) return track;
    track.damage = EditListDamage::showsNothing;
  }
  track.edits = {wholeMedia(movieTimescale, track)};
  countShown(order, count, movieTimescale, track);
  return track;
}

}  // namespace

MovieTime TrackPresentation::sampleLength(uint32_t sample) const {
  if (sample >= sampleCount()) return MovieTime(0);
  return movieTime(SampleTimes::Cursor(times, sample).time().delta, timescale);
}

Presentation Presentation::read(FileManager& files, const Path& path) {
  // A box that cannot be read would pass for one that is not there.
  return readWatched(ReadWatch(files.open(path, OpenMode::reading)), readFrom);
}

Presentation Presentation::readFrom(FileHandle& file) {
  TopLevel top = scanTopLevel(file);
  if (!top.moov) throw presentationError("The file has no moov");
  if (top.hasFragments) throw presentationError("The movie is fragmented");
  auto header = readTimeHeader(file, *top.moov, "mvhd");
  if (!header || header->timescale == 0) throw presentationError("The movie has no timescale");
  Presentation presentation;
  presentation.movieTimescale_ = header->timescale;
  FileBoxWalker walker(file, top.moov->contentOffset(), top.moov->end(), boxwalk::tracks);
  while (auto box = walker.next()) {
    if (box->type != "trak") continue;
    try {
      presentation.tracks_.push_back(readTrack(file, *box, header->timescale));
    } catch (const PosixError&) {
      throw;
    } catch (const Error& error) {
      throw presentationError("Track " + std::to_string(presentation.tracks_.size() + 1) + ": " + error.description());
    }
  }
  presentation.metadata_ = metadataPaths(file);
  return presentation;
}

std::optional<Presentation> Presentation::readIfPossible(FileManager& files, const Path& path,
                                                         std::string_view consequence) {
  try {
    return read(files, path);
  } catch (const PosixError&) {
    throw;
  } catch (const Error& failure) {
    log("{}: {}", consequence, failure.description());
    return std::nullopt;
  }
}

MovieTime Presentation::tick() const {
  return tickOf(movieTimescale_);
}

const TrackPresentation* Presentation::first(std::string_view handler) const {
  auto found = std::ranges::find(tracks_, handler, &TrackPresentation::handler);
  return found == tracks_.end() ? nullptr : &*found;
}

bool isFragmented(FileManager& files, const Path& path) {
  return readWatched(ReadWatch(files.open(path, OpenMode::reading)),
                     [](FileHandle& file) { return scanTopLevel(file).hasFragments; });
}

}  // namespace tarn
