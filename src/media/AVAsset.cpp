#include "media/AVAsset.h"

#include <algorithm>
#include <array>
#include <compare>
#include <limits>
#include <optional>
#include <string_view>
#include <utility>

#include "media/detail/SampleEntries.h"
#include "media/detail/SampleTableSource.h"
#include "mp4/BoxLayout.h"
#include "mp4/BoxWalker.h"
#include "mp4/DataExtensions.h"
#include "mp4/EditList.h"
#include "mp4/SampleTableBuilders.h"
#include "mp4/TableBox.h"
#include "mp4/TimeHeader.h"
#include "platform/Error.h"

namespace tarn {
namespace {

/// The track_ID of a `tkhd` (ISO/IEC 14496-12 8.3.2).
uint32_t readTrackID(FileHandle& file, const MP4BoxInfo& trak) {
  auto tkhd = MP4BoxUtils::findChildBox(file, trak, "tkhd");
  if (!tkhd) return 0;
  // The layout counts from a header of 8 bytes; the file's may be longer.
  std::array<uint8_t, layout::trackID64.end() - layout::boxHeaderSize> contents;
  file.seek(tkhd->contentOffset());
  auto read = std::span<const uint8_t>(contents).first(file.readInto(contents));
  const auto& field = !read.empty() && read[0] != 0 ? layout::trackID64 : layout::trackID32;
  return readUInt32(read, field.offset - layout::boxHeaderSize).value_or(0);
}

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

std::vector<EditListRow> readableEditList(FileHandle& file, const MP4BoxInfo& trak) {
  try {
    return readEditList(file, trak);
  } catch (const Error&) {
    return {};
  }
}

CMTimeRange timeRangeOf(const std::vector<EditListRow>& rows, uint32_t movieTimescale, const TimeHeader& media) {
  CMTime mediaDuration = timeOf(media.duration, media.timescale);
  if (rows.empty() || !isUsable(movieTimescale)) return {CMTime::zero(), mediaDuration};
  CMTimeRange range;
  bool isLeading = true;
  for (const EditListRow& row : rows) {
    isLeading = isLeading && row.isEmpty();
    CMTime duration = timeOf(row.duration, movieTimescale);
    if (row.isEmpty()) {
      if (isLeading) range.start = range.start + duration;
      continue;
    }
    if (row.duration == 0) {
      duration = mediaDuration - timeOf(static_cast<uint64_t>(std::max<int64_t>(row.mediaTime, 0)), media.timescale);
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
  auto minf = MP4BoxUtils::findChildBox(file, mdia, "minf");
  return minf ? MP4BoxUtils::findChildBox(file, *minf, "stbl") : std::nullopt;
}

AVAssetTrack readTrack(FileHandle& file, const MP4BoxInfo& trak, AVMediaType mediaType, uint32_t movieTimescale) {
  AVAssetTrack track;
  track.mediaType = mediaType;
  track.trak = trak;
  track.trackID = readTrackID(file, trak);
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

/// 0 where it cannot be read. Moves the file's position, which must be its start.
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
  std::string_view handler =
      handlerTypeText(withMediaType == AVMediaType::video ? MP4TrackType::video : MP4TrackType::audio);
  std::vector<AVAssetTrack> tracks;
  try {
    auto file = files_.open(url_, OpenMode::reading);
    auto moov = findMovie(*file);
    if (!moov) return tracks;
    uint32_t movieTimescale = readTimeHeader(*file, *moov, "mvhd").value_or(TimeHeader{}).timescale;
    FileBoxWalker walker(*file, moov->contentOffset(), moov->end(), boxwalk::tracks);
    while (auto header = walker.next()) {
      if (header->type != "trak") continue;
      if (MP4BoxUtils::getHandlerType(*file, *header) != handler) continue;
      tracks.push_back(readTrack(*file, *header, withMediaType, movieTimescale));
    }
  } catch (const PosixError&) {
    // An asset that cannot be read has the tracks that were found.
  }
  return tracks;
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
  auto file = files_.open(url_, OpenMode::reading);
  const uint32_t movieTimescale = movieTimescaleOf(*file);
  auto [locations, times] = readSampleTable(*file, track);
  const auto rows = track.followsEditList ? readEditList(*file, track.trak) : std::vector<EditListRow>();
  auto edits = mediaEdits(rows, movieTimescale, track.naturalTimeScale, times.duration());
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
  auto file = files_.open(url_, OpenMode::reading);
  const uint32_t movieTimescale = movieTimescaleOf(*file);
  const int64_t duration = readSampleTable(*file, track).second.duration();
  const auto rows = readableEditList(*file, track.trak);
  const auto isImpossible = [](const EditListRow& row) { return row.mediaTime < layout::emptyEdit; };
  const auto reachesMedia = [&](const EditListRow& row) { return !row.isEmpty() && row.mediaTime < duration; };
  if (!isUsable(movieTimescale) || std::ranges::any_of(rows, isImpossible) ||
      std::ranges::none_of(rows, reachesMedia)) {
    return {MediaEdit{}};
  }
  return mediaEdits(rows, movieTimescale, track.naturalTimeScale, duration);
}

}  // namespace tarn
