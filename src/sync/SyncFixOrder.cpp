#include "sync/SyncFixOrder.h"

#include <fmt/format.h>

#include <algorithm>

#include "mp4/BoxLayout.h"
#include "presentation/TrackWords.h"
#include "sync/detail/TimeArithmetic.h"

namespace tarn {
namespace {

/// The whole media in place, as a list says it; no entries where a list cannot.
PlannedEditList wholeMedia(const TrackPresentation& track, uint32_t movieTimescale) {
  const int64_t start = track.mediaStart();
  const int64_t empty = rescaleTime(std::max<int64_t>(start, 0), movieTimescale, track.timescale);
  if (start < 0 || !isWithinMillisecond({empty, movieTimescale}, {start, track.timescale})) {
    return {.trackDuration = rescaleTimeUp(track.mediaEnd, movieTimescale, track.timescale)};
  }
  const int64_t played = rescaleTimeUp(subtractTimes(track.mediaEnd, start), movieTimescale, track.timescale);
  PlannedEditList list{.trackDuration = addTimes(empty, played)};
  if (empty > 0) list.entries.push_back({empty, layout::emptyEdit, layout::normalRate});
  list.entries.push_back({played, start, layout::normalRate});
  return list;
}

/// What a new list does, for people.
std::string remedyOf(const Presentation& movie, const TrackPresentation& track, const PlannedEditList& list) {
  if (track.damage == EditListDamage::none) return "wrote an edit list that says so";
  const std::string name = trackWords(movie, track.handler, track.trackID);
  return list.entries.empty() ? fmt::format("removed it, so that all of the {} is shown", name)
                              : fmt::format("wrote an edit list that shows all of the {}", name);
}

/// The list that a track needs; nothing if its own is right.
std::optional<PlannedEditList> neededList(const Presentation& movie, const TrackPresentation& track) {
  if (track.sampleCount() == 0) return std::nullopt;
  const bool isDamaged = track.damage != EditListDamage::none;
  const bool lacksList = &track == movie.first(handlerTypeText(MP4TrackType::video)) && !track.hasEditList &&
                         movie.first(handlerTypeText(MP4TrackType::audio)) && track.firstCompositionTime != 0;
  if (!isDamaged && !lacksList) return std::nullopt;
  PlannedEditList list = wholeMedia(track, movie.movieTimescale());
  // Without a list the track is shown from 0 on, as it would be with this one.
  if (!isDamaged && list.entries.size() < 2) return std::nullopt;
  list.reason = editListWords(movie, track);
  list.remedy = remedyOf(movie, track, list);
  return list;
}

/// What the list in force lasts, movie timescale.
int64_t durationOf(const TrackPresentation& track, uint32_t movieTimescale) {
  if (!track.hasEditList) return rescaleTimeUp(track.mediaEnd, movieTimescale, track.timescale);
  int64_t duration = 0;
  for (const PresentedEdit& edit : track.edits) duration = addTimes(duration, edit.movieDuration);
  return duration;
}

}  // namespace

SyncFixOrder orderSyncFix(const Presentation& presentation) {
  SyncFixOrder order;
  if (!presentation.first(handlerTypeText(MP4TrackType::video))) return order;
  for (const TrackPresentation& track : presentation.tracks()) {
    if (auto list = neededList(presentation, track)) {
      order.movieDuration = std::max(order.movieDuration, list->trackDuration);
      order.tracks.push_back({track.trackID, *std::move(list)});
    } else {
      order.movieDuration = std::max(order.movieDuration, durationOf(track, presentation.movieTimescale()));
    }
  }
  return order;
}

}  // namespace tarn
