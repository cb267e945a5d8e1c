#include "media/AVAsset.h"

#include <algorithm>
#include <compare>
#include <limits>
#include <optional>
#include <string_view>
#include <utility>

#include "media/detail/SampleEntries.h"
#include "media/detail/SampleTableSource.h"
#include "mp4/BoxWalker.h"
#include "mp4/EditList.h"
#include "mp4/EditTimeline.h"
#include "mp4/SampleTableBuilders.h"
#include "mp4/TableBox.h"
#include "mp4/TimeHeader.h"
#include "platform/Error.h"
#include "platform/ReadWatch.h"

namespace tarn {
namespace {

/// True for a timescale that a CMTime can have.
bool isUsable(uint32_t timescale) {
  return timescale > 0 && timescale <= uint32_t{std::numeric_limits<int32_t>::max()};
}

/// A time of a file; zero where its timescale is not usable.
CMTime timeOf(uint64_t ticks, uint32_t timescale) {
  if (!isUsable(timescale)) return CMTime::zero();
  auto value = static_cast<int64_t>(std::min<uint64_t>(ticks, std::numeric_limits<int64_t>::max()));
  return CMTime::make(value, static_cast<int32_t>(timescale));
}

std::vector<EditListEntry> readableEditList(FileHandle& file, const MP4BoxInfo& trak) {
  try {
    return readEditList(file, trak);
  } catch (const Error&) {
    return {};
  }
}

CMTimeRange timeRangeOf(const std::vector<EditListEntry>& entries, uint32_t movieTimescale, const TimeHeader& media) {
  CMTime mediaDuration = timeOf(media.duration, media.timescale);
  if (entries.empty() || !isUsable(movieTimescale)) return {CMTime::zero(), mediaDuration};
  CMTimeRange range;
  bool isLeading = true;
  for (const EditListEntry& entry : entries) {
    isLeading = isLeading && entry.isEmpty();
    CMTime duration = timeOf(static_cast<uint64_t>(entry.duration), movieTimescale);
    if (entry.isEmpty()) {
      if (isLeading) range.start = range.start + duration;
      continue;
    }
    if (entry.duration == 0) {
      duration = mediaDuration - timeOf(static_cast<uint64_t>(std::max<int64_t>(entry.mediaTime, 0)), media.timescale);
      if (std::is_lt(compare(duration, CMTime::zero()))) duration = CMTime::zero();
    }
    range.duration = range.duration + duration;
  }
  return range;
}

std::optional<MP4BoxInfo> findMovie(FileHandle& file) {
  return MP4BoxUtils::findTopLevelBox(file, "moov");
}

std::optional<MP4BoxInfo> findSampleTable(FileHandle& file, const MP4BoxInfo& mdia) {
  return MP4BoxUtils::findDescendant(file, mdia, {"minf", "stbl"});
}

AVAssetTrack readTrack(FileHandle& file, const MP4BoxInfo& trak, AVMediaType mediaType, uint32_t movieTimescale) {
  AVAssetTrack track;
  track.mediaType = mediaType;
  track.trak = trak;
  track.trackID = readTrackHeader(file, trak).trackID;
  auto mdia = MP4BoxUtils::findChildBox(file, trak, "mdia");
  if (!mdia) return track;
  TimeHeader media = readTimeHeader(file, *mdia, "mdhd").value_or(TimeHeader{});
  track.naturalTimeScale = media.timescale;
  track.timeRange = timeRangeOf(readableEditList(file, trak), movieTimescale, media);
  auto stbl = findSampleTable(file, *mdia);
  if (auto stsd = stbl ? MP4BoxUtils::findChildBox(file, *stbl, "stsd") : std::nullopt) {
    track.formatDescriptions = readFormatDescriptions(file, *stsd, mediaType == AVMediaType::audio);
  }
  return track;
}

std::vector<AVAssetTrack> readTracks(FileHandle& file, AVMediaType mediaType) {
  std::string_view handler =
      handlerTypeText(mediaType == AVMediaType::video ? MP4TrackType::video : MP4TrackType::audio);
  std::vector<AVAssetTrack> tracks;
  auto moov = findMovie(file);
  if (!moov) return tracks;
  uint32_t movieTimescale = readTimeHeader(file, *moov, "mvhd").value_or(TimeHeader{}).timescale;
  FileBoxWalker walker(file, moov->contentOffset(), moov->end(), boxwalk::tracks);
  while (auto header = walker.next()) {
    if (header->type != "trak") continue;
    if (MP4BoxUtils::getHandlerType(file, *header) != handler) continue;
    tracks.push_back(readTrack(file, *header, mediaType, movieTimescale));
  }
  return tracks;
}

/// 0 if it cannot be read. Moves the file's position, which must be its start.
uint32_t movieTimescaleOf(FileHandle& file) {
  auto moov = findMovie(file);
  auto movie = moov ? readTimeHeader(file, *moov, "mvhd") : std::nullopt;
  return movie.value_or(TimeHeader{}).timescale;
}

std::pair<SampleLocations, SampleTimes> readSampleTable(FileHandle& file, const AVAssetTrack& track) {
  if (!isUsable(track.naturalTimeScale)) throw sampleTableError("The track has no timescale");
  auto stbl = findSampleTable(file, requireTableBox(file, track.trak, "mdia"));
  if (!stbl) throw sampleTableError("stbl box not found");
  SampleLocations locations(file, *stbl);
  SampleTimes times(file, *stbl, locations.count());
  return {std::move(locations), std::move(times)};
}

}  // namespace

std::vector<AVAssetTrack> AVAsset::tracks(AVMediaType withMediaType) const {
  try {
    return readWatched(ReadWatch(files_.open(url_, OpenMode::reading)),
                       [&](FileHandle& file) { return readTracks(file, withMediaType); });
  } catch (const PosixError&) {
    return {};
  }
}

CMTime AVAsset::duration() const {
  CMTime longest = CMTime::zero();
  auto include = [&](const CMTime& duration) {
    if (duration.isNumeric() && std::is_gt(compare(duration, longest))) longest = duration;
  };
  try {
    auto file = files_.open(url_, OpenMode::reading);
    auto moov = findMovie(*file);
    if (auto header = moov ? readTimeHeader(*file, *moov, "mvhd") : std::nullopt) {
      include(timeOf(header->duration, header->timescale));
    }
  } catch (const PosixError&) {
    return longest;
  }
  for (AVMediaType mediaType : {AVMediaType::video, AVMediaType::audio}) {
    for (const AVAssetTrack& track : tracks(mediaType)) include(track.timeRange.start + track.timeRange.duration);
  }
  return longest;
}

std::unique_ptr<CompressedSampleSource> AVAsset::compressedSamples(const AVAssetTrack& track) const {
  auto file = std::make_unique<ReadWatch>(files_.open(url_, OpenMode::reading));
  const uint32_t movieTimescale = movieTimescaleOf(*file);
  auto [locations, times] = readSampleTable(*file, track);
  const auto entries = track.followsEditList ? readEditList(*file, track.trak) : std::vector<EditListEntry>();
  auto edits = mediaEdits(entries, movieTimescale, track.naturalTimeScale, times.duration());
  file->requireReadable();
  return std::make_unique<SampleTableSource>(SampleTableSource::Tables{
      .file = std::move(file),
      .locations = std::move(locations),
      .times = std::move(times),
      .edits = std::move(edits),
      .descriptions = track.formatDescriptions,
      .timescale = static_cast<int32_t>(track.naturalTimeScale),
  });
}

AVAssetTrack AVAsset::withoutEditList(const AVAssetTrack& track) const {
  auto file = files_.open(url_, OpenMode::reading);
  AVAssetTrack whole = track;
  whole.followsEditList = false;
  const int64_t duration = readSampleTable(*file, track).second.duration();
  whole.timeRange = {CMTime::zero(), CMTime::make(duration, static_cast<int32_t>(track.naturalTimeScale))};
  return whole;
}

int64_t AVAsset::samplesOutsideFile(const AVAssetTrack& track) const {
  auto file = files_.open(url_, OpenMode::reading);
  const SampleLocations locations = readSampleTable(*file, track).first;
  return int64_t{locations.count()} - locations.countInFile();
}

std::vector<MediaEdit> AVAsset::shownMedia(const AVAssetTrack& track) const {
  ReadWatch file(files_.open(url_, OpenMode::reading));
  const uint32_t movieTimescale = movieTimescaleOf(file);
  const int64_t duration = readSampleTable(file, track).second.duration();
  const auto entries = readableEditList(file, track.trak);
  file.requireReadable();
  if (!isUsable(movieTimescale) || entries.empty() || damageOf(entries, duration) != EditListDamage::none) {
    return {MediaEdit{}};
  }
  return mediaEdits(entries, movieTimescale, track.naturalTimeScale, duration);
}

}  // namespace tarn
