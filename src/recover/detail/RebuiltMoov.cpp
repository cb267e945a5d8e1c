#include "recover/detail/RebuiltMoov.h"

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

#include "fragments/MovieTimes.h"
#include "movie/MovieError.h"
#include "movie/TrackFields.h"
#include "mp4/BoxLayout.h"
#include "mp4/EditList.h"
#include "mp4/EditTimeline.h"

namespace tarn {
namespace {

TrackTables pictureTables(const FoundMedia& found, const RecordedPictures& recorded) {
  const std::vector<int64_t> times = compositionTimes(found.pictures, recorded);
  TrackTables tables;
  for (size_t i = 0; i < found.pictures.size(); ++i) {
    const FoundPicture& picture = found.pictures[i];
    const int64_t time = recorded.timeOf(i);
    tables.append({.offset = picture.offset,
                   .size = picture.size,
                   .duration = static_cast<uint32_t>(recorded.timeOf(i + 1) - time),
                   .compositionOffset = times[i] - time,
                   .isSync = picture.isSync});
  }
  return tables;
}

TrackTables soundTables(const FoundMedia& found, const RecordedSound& recorded) {
  TrackTables tables;
  uint64_t sample = 0;
  uint64_t time = 0;
  for (const FoundSound& piece : found.sound) {
    const uint32_t size = recorded.isPCM ? recorded.blockSize : piece.size;
    for (uint64_t at = 0; at + size <= piece.size; at += size) {
      const uint64_t end = recorded.timeOf(++sample);
      tables.append({.offset = piece.offset + at, .size = size, .duration = static_cast<uint32_t>(end - time)});
      time = end;
    }
  }
  return tables;
}

/// Keeps how late a track begins, and lets it end with its media. Returns how long the track is shown, movie timescale.
uint64_t fitEdits(MovieBox& trak, int64_t mediaEnd, uint32_t timescale, uint32_t movieTimescale) {
  std::vector<EditListEntry> entries = editListOf(trak);
  const auto media = std::ranges::find_if_not(entries, &EditListEntry::isEmpty);
  if (media == entries.end()) {
    putEdits(trak, {});
    return static_cast<uint64_t>(movieTicks(mediaEnd, timescale, movieTimescale));
  }
  entries.erase(media + 1, entries.end());
  const int64_t begin = std::max<int64_t>(entries.back().mediaTime, 0);
  entries.back().duration = movieTicks(std::max<int64_t>(mediaEnd - begin, 0), timescale, movieTimescale);
  putEdits(trak, entries);
  uint64_t shown = 0;
  for (const EditListEntry& entry : entries) shown += static_cast<uint64_t>(entry.duration);
  return shown;
}

/// A recording's place, date and names are its own: those of the healthy movie are not true of another one.
void forgetHowItCameAbout(MovieBox& box, std::string_view timeHeaderType) {
  for (const char* type : {"udta", "meta", "uuid"}) box.removeAll(type);
  MovieBox* timeHeader = box.find({timeHeaderType});
  if (timeHeader == nullptr || timeHeader->contents.empty()) return;
  const size_t begin = layout::versionAndFlags.end() - layout::boxHeaderSize;
  const size_t times = timeHeader->contents.front() == 0 ? 8 : 16;  // of creation and modification
  const size_t end = std::min(begin + times, timeHeader->contents.size());
  for (size_t i = begin; i < end; ++i) timeHeader->contents[i] = 0;
}

/// Removes tracks that are not rebuilt, and what refers to them.
void dropOthers(PlainMovie& movie, const std::vector<OtherTrack>& others) {
  if (others.empty()) return;
  size_t trak = 0, table = 0;
  const auto isOther = [&](size_t index) {
    return std::ranges::find(others, index, &OtherTrack::trak) != others.end();
  };
  std::erase_if(movie.moov.children, [&](const MovieBox& box) { return box.type == "trak" && isOther(trak++); });
  std::erase_if(movie.tables, [&](const TrackTables&) { return isOther(table++); });
  for (MovieBox& box : movie.moov.children) {
    if (box.type == "trak") box.removeAll("tref");
  }
}

}  // namespace

PlainMovie rebuiltMovie(Recorder recorder, const FoundMedia& found) {
  PlainMovie movie{.ftyp = std::move(recorder.ftyp), .moov = std::move(recorder.moov), .tables = {}};
  forgetHowItCameAbout(movie.moov, "mvhd");
  MovieBox* mvhd = movie.moov.find({"mvhd"});
  const auto movieTimescale = static_cast<uint32_t>(headerTimescaleField.load(mvhd).value_or(0));
  if (movieTimescale == 0) throw MovieError(MovieError::Case::damaged, "The healthy movie has no timescale");
  uint64_t longest = 0;
  for (MovieBox& trak : movie.moov.children) {
    if (trak.type != "trak") continue;
    forgetHowItCameAbout(trak, "tkhd");
    if (MovieBox* mdia = trak.find({"mdia"})) forgetHowItCameAbout(*mdia, "mdhd");
    const size_t index = movie.tables.size();
    TrackTables& tables = movie.tables.emplace_back();
    const bool isPictures = index == recorder.pictures.trak;
    if (!isPictures && (!recorder.sound || index != recorder.sound->trak)) continue;
    tables = isPictures ? pictureTables(found, recorder.pictures) : soundTables(found, *recorder.sound);
    const uint32_t timescale = isPictures ? recorder.pictures.timescale : recorder.sound->timescale;
    const int64_t mediaEnd = isPictures ? tables.composition().end : static_cast<int64_t>(tables.duration());
    const uint64_t shown = fitEdits(trak, mediaEnd, timescale, movieTimescale);
    storeDuration(trak.find({"mdia", "mdhd"}), headerDurationField, tables.duration());
    storeDuration(trak.find({"tkhd"}), tkhdDurationField, shown);
    longest = std::max(longest, shown);
  }
  storeDuration(mvhd, headerDurationField, longest);
  dropOthers(movie, recorder.others);
  return movie;
}

}  // namespace tarn
