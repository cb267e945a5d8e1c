#include "recover/detail/RebuiltMoov.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "movie/MovieError.h"
#include "movie/TrackFields.h"
#include "mp4/DataExtensions.h"
#include "mp4/EditList.h"
#include "mp4/EditTimeline.h"

namespace tarn {
namespace {

TrackTables pictureTables(const FoundMedia& found, const RecordedPictures& recorded) {
  const std::vector<int64_t> times = compositionTimes(found.pictures, recorded);
  TrackTables tables;
  for (size_t i = 0; i < found.pictures.size(); ++i) {
    const FoundPicture& picture = found.pictures[i];
    tables.append({.offset = picture.offset,
                   .size = picture.size,
                   .duration = recorded.duration,
                   .compositionOffset = times[i] - static_cast<int64_t>(i) * recorded.duration,
                   .isSync = picture.isSync});
  }
  return tables;
}

TrackTables soundTables(const FoundMedia& found, const RecordedSound& recorded) {
  TrackTables tables;
  uint64_t sample = 0;
  for (const FoundSound& piece : found.sound) {
    const uint32_t size = recorded.isPCM ? recorded.blockSize : piece.size;
    for (uint32_t at = 0; at + size <= piece.size; at += size, ++sample) {
      const uint64_t duration = recorded.timeOf(sample + 1) - recorded.timeOf(sample);
      tables.append({.offset = piece.offset + at, .size = size, .duration = static_cast<uint32_t>(duration)});
    }
  }
  return tables;
}

/// Keeps how late a track begins, and lets it end with its media. Returns how long the track is shown, movie timescale.
uint64_t fitEdits(MovieBox& trak, int64_t mediaEnd, uint32_t timescale, uint32_t movieTimescale) {
  const MovieBox* old = trak.find({"edts", "elst"});
  const auto entries = old ? readEditList(old->plainBytes(), editlist::replaced) : std::vector<EditListEntry>();
  std::vector<EditListEntry> kept;
  int64_t shown = 0;
  for (const EditListEntry& entry : entries) {
    kept.push_back(entry);
    if (!entry.isEmpty()) {
      const int64_t length = std::max<int64_t>(mediaEnd - std::max<int64_t>(entry.mediaTime, 0), 0);
      kept.back().duration = movieTicks(length, timescale, movieTimescale);
    }
    shown += kept.back().duration;
    if (!entry.isEmpty()) break;
  }
  if (kept.empty() || kept.back().isEmpty()) {
    trak.removeAll("edts");
    return static_cast<uint64_t>(movieTicks(mediaEnd, timescale, movieTimescale));
  }
  Bytes box;
  ByteWriter writer(box);
  writer.uint32(0).text("elst").uint32(static_cast<uint32_t>(layout::versionWord(1)));
  writer.uint32(static_cast<uint32_t>(kept.size()));
  for (const EditListEntry& entry : kept) {
    writer.uint64(static_cast<uint64_t>(entry.duration)).uint64(static_cast<uint64_t>(entry.mediaTime));
    writer.uint32(static_cast<uint32_t>(entry.mediaRate));
  }
  trak.find({"edts"})->put(MovieBox::of(box));
  return static_cast<uint64_t>(shown);
}

}  // namespace

PlainMovie rebuiltMovie(Recorder recorder, const FoundMedia& found) {
  PlainMovie movie{.ftyp = std::move(recorder.ftyp), .moov = std::move(recorder.moov), .tables = {}};
  MovieBox* mvhd = movie.moov.find({"mvhd"});
  const auto movieTimescale = static_cast<uint32_t>(headerTimescaleField.load(mvhd).value_or(0));
  if (movieTimescale == 0) throw MovieError(MovieError::Case::damaged, "The healthy movie has no timescale");
  uint64_t longest = 0;
  for (MovieBox& trak : movie.moov.children) {
    if (trak.type != "trak") continue;
    const size_t index = movie.tables.size();
    TrackTables& tables = movie.tables.emplace_back();
    const bool isPictures = index == recorder.pictures.trak;
    if (!isPictures && (!recorder.sound || index != recorder.sound->trak)) continue;
    tables = isPictures ? pictureTables(found, recorder.pictures) : soundTables(found, *recorder.sound);
    const uint32_t timescale = isPictures ? recorder.pictures.timescale : recorder.sound->timescale;
    const int64_t mediaEnd = isPictures ? tables.composition().end : static_cast<int64_t>(tables.duration());
    const uint64_t shown = fitEdits(trak, mediaEnd, timescale, movieTimescale);
    headerDurationField.store(trak.find({"mdia", "mdhd"}), tables.duration());
    tkhdDurationField.store(trak.find({"tkhd"}), shown);
    longest = std::max(longest, shown);
  }
  headerDurationField.store(mvhd, longest);
  return movie;
}

}  // namespace tarn
