#include "fragments/FragmentAssembly.h"

#include <algorithm>
#include <utility>

#include "fragments/MovieTimes.h"
#include "fragments/detail/FragmentEdits.h"
#include "movie/MovieError.h"
#include "mp4/EditTimeline.h"

namespace tarn {
namespace {

class Assembly {
 public:
  explicit Assembly(FragmentedMovie& movie)
      : movie_(movie), timescale_(static_cast<uint32_t>(headerTimescaleField.load(header()).value_or(0))) {
    if (timescale_ == 0) throw MovieError::damaged("The movie has no timescale");
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
  plain.tables.reserve(movie.tracks.size());  // growing would copy the tables
  for (FragmentTrack& track : movie.tracks) plain.tables.push_back(std::move(track.tables()));
  return plain;
}

}  // namespace tarn
