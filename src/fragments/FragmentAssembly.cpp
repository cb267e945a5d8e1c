#include "fragments/FragmentAssembly.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "fragments/detail/FragmentEdits.h"
#include "movie/MovieError.h"
#include "movie/TrackFields.h"
#include "mp4/DataExtensions.h"
#include "mp4/EditTimeline.h"

namespace tarn {
namespace {

constexpr uint64_t uint32Max = std::numeric_limits<uint32_t>::max();

/// Gives an `mvhd`, `tkhd` or `mdhd` of version 0 the long times of version 1. `duration` is where its duration is.
void widen(MovieBox& header, const layout::Field& duration) {
  constexpr size_t times = 2 * sizeof(uint32_t);  // of creation and modification
  const size_t begin = layout::versionAndFlags.end() - layout::boxHeaderSize;
  const size_t end = duration.offset - layout::boxHeaderSize;
  const ByteView old = header.contents;
  Bytes wide;
  ByteWriter writer(wide);
  writer.uint8(1).bytes(old.subspan(1, begin - 1));
  for (size_t at = begin; at < begin + times; at += sizeof(uint32_t)) writer.uint32(0).bytes(old.subspan(at, 4));
  writer.bytes(old.subspan(begin + times, end - begin - times)).uint32(0).bytes(old.subspan(end));
  header.contents = std::move(wide);
}

void storeDuration(MovieBox* header, const VersionedField& field, uint64_t ticks) {
  const auto old = field.load(header);
  if (!old) throw MovieError(MovieError::Case::damaged, "A header of the moov ends ahead of its duration");
  const bool isShort = header->contents.front() == 0;
  if (isShort && ticks >= uint32Max) widen(*header, field.version0);
  field.store(header, ticks);
}

std::vector<EditListEntry> editListOf(const MovieBox& trak) {
  const MovieBox* elst = trak.find({"edts", "elst"});
  return elst ? readEditList(elst->plainBytes(), editlist::replaced) : std::vector<EditListEntry>();
}

MovieBox editBox(const std::vector<EditListEntry>& entries) {
  const bool isLong = std::ranges::any_of(entries, [](const EditListEntry& entry) {
    return entry.duration > static_cast<int64_t>(uint32Max) || entry.mediaTime > std::numeric_limits<int32_t>::max();
  });
  Bytes contents;
  ByteWriter writer(contents);
  writer.uint32(static_cast<uint32_t>(layout::versionWord(isLong ? 1 : 0)));
  writer.uint32(static_cast<uint32_t>(entries.size()));
  for (const EditListEntry& entry : entries) {
    if (isLong) {
      writer.uint64(static_cast<uint64_t>(entry.duration)).uint64(static_cast<uint64_t>(entry.mediaTime));
    } else {
      writer.uint32(static_cast<uint32_t>(entry.duration)).uint32(static_cast<uint32_t>(entry.mediaTime));
    }
    writer.uint32(static_cast<uint32_t>(entry.mediaRate));
  }
  return MovieBox::of("elst", std::move(contents));
}

/// An `edts` stands behind the `tkhd`.
void putEdits(MovieBox& trak, const std::vector<EditListEntry>& entries) {
  if (entries.empty()) return trak.removeAll("edts");
  if (!trak.find({"edts"})) {
    const auto header = std::ranges::find(trak.children, "tkhd", &MovieBox::type);
    trak.children.insert(header == trak.children.end() ? header : header + 1, MovieBox::of("edts", {}));
  }
  trak.find({"edts"})->put(editBox(entries));
}

class Assembly {
 public:
  explicit Assembly(FragmentedMovie& movie)
      : movie_(movie), timescale_(static_cast<uint32_t>(headerTimescaleField.load(header()).value_or(0))) {
    if (timescale_ == 0) throw MovieError(MovieError::Case::damaged, "The movie has no timescale");
  }

  void fitMoov() {
    movie_.moov.removeAll("mvex");
    readEdits();
    const ExactTime start = movieStart();
    uint64_t longest = 0;
    for (size_t i = 0; i < traks_.size(); ++i) longest = std::max(longest, fitTrack(i, start));
    storeDuration(header(), headerDurationField, longest);
  }

 private:
  MovieBox* header() { return movie_.moov.find({"mvhd"}); }

  void readEdits() {
    for (MovieBox& child : movie_.moov.children) {
      if (child.type != "trak") continue;
      edits_.emplace_back(editListOf(child), movie_.tracks[traks_.size()], timescale_);
      traks_.push_back(&child);
    }
  }

  ExactTime movieStart() const {
    std::optional<ExactTime> start;
    for (const FragmentEdits& edits : edits_) {
      const auto shown = edits.firstShown();
      if (shown && (!start || *shown < *start)) start = shown;
    }
    return start.value_or(ExactTime());
  }

  /// Returns how long the track is shown, movie timescale.
  uint64_t fitTrack(size_t index, const ExactTime& start) {
    MovieBox& trak = *traks_[index];
    const FragmentTrack& track = movie_.tracks[index];
    const uint64_t duration = track.tables().duration();
    int64_t shown = movieTicks(static_cast<int64_t>(duration), track.timescale(), timescale_);
    if (track.tables().sampleCount() > 0) {
      const std::vector<EditListEntry> entries = edits_[index].entries(start);
      putEdits(trak, entries);
      if (!entries.empty()) shown = 0;
      for (const EditListEntry& entry : entries) shown += entry.duration;
    }
    storeDuration(trak.find({"mdia", "mdhd"}), headerDurationField, duration);
    storeDuration(trak.find({"tkhd"}), tkhdDurationField, static_cast<uint64_t>(shown));
    return static_cast<uint64_t>(shown);
  }

  FragmentedMovie& movie_;
  const uint32_t timescale_;
  std::vector<MovieBox*> traks_;
  std::vector<FragmentEdits> edits_;
};

}  // namespace

PlainMovie assemblePlainMovie(FragmentedMovie movie) {
  Assembly(movie).fitMoov();
  PlainMovie plain{.ftyp = std::move(movie.ahead), .moov = std::move(movie.moov), .tables = {}};
  for (FragmentTrack& track : movie.tracks) plain.tables.push_back(std::move(track.tables()));
  return plain;
}

}  // namespace tarn
