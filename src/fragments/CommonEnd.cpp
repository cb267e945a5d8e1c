#include "fragments/CommonEnd.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <string_view>

#include "fragments/FragmentsError.h"
#include "fragments/MovieTimes.h"
#include "movie/MovieError.h"
#include "mp4/EditTimeline.h"

namespace tarn {
namespace {

constexpr int64_t never = std::numeric_limits<int64_t>::max();
constexpr double noEnd = std::numeric_limits<double>::infinity();
/// A common end costs no track more than this.
constexpr double mostSeconds = 10;
/// Of all tracks together: each takes 16 bytes.
constexpr uint64_t mostPictures = 1 << 24;

/// The first so many samples of a track, and where what they show ends in the media.
struct Prefix {
  uint64_t samples = 0;
  int64_t end = 0;  ///< track timescale
};

/// Where prefixes of a track's pictures, in decode order, end.
class PictureOrder {
 public:
  PictureOrder(const TrackTables& tables, const MissingSamples& missing)
      : times_(tables.compositionTimes()), lastDuration_(tables.lastDuration()) {
    next_.assign(times_.size() + 1, never);
    if (missing.areAny()) next_.back() = missing.firstTime.value_or(firstGap(tables));
    for (size_t i = times_.size(); i-- > 0;) next_[i] = std::min(times_[i], next_[i + 1]);
  }

  /// The longest prefix that is shown without a gap and ends at `limit` or before it.
  Prefix within(int64_t limit) const {
    Prefix best;
    int64_t latest = -never;
    for (size_t i = 0; i < times_.size(); ++i) {
      latest = std::max(latest, times_[i]);
      const int64_t next = next_[i + 1];
      const int64_t end = next == never ? latest + lastDuration_ : next;
      if (latest <= next && end <= limit) best = {i + 1, end};
    }
    return best;
  }

 private:
  /// The time of the first picture that is missing between those that are there. Pictures come out of the decoder at
  /// most 16 after their place (ISO/IEC 14496-10 A.3.1, ISO/IEC 23008-2 A.4.2).
  int64_t firstGap(const TrackTables& tables) const {
    constexpr size_t mostReordered = 16;
    const size_t looked = std::min(times_.size(), 2 * mostReordered);
    std::vector<int64_t> last(times_.end() - static_cast<ptrdiff_t>(looked), times_.end());
    std::ranges::sort(last);
    auto longest = static_cast<uint64_t>(lastDuration_);
    for (uint64_t i = times_.size() - looked; i + 1 < times_.size(); ++i) {
      longest = std::max(longest, tables.decodeTime(i + 1) - tables.decodeTime(i));
    }
    const auto usual = static_cast<int64_t>(longest);
    for (size_t i = last.size() - std::min(last.size(), mostReordered); i + 1 < last.size(); ++i) {
      if (last[i + 1] - last[i] > usual + usual / 2) return last[i] + usual;
    }
    return never;
  }

  std::vector<int64_t> times_;
  std::vector<int64_t> next_;  ///< the smallest time of a sample from this one on
  int64_t lastDuration_;
};

/// A track whose end is looked for.
class EndingTrack {
 public:
  EndingTrack(MovieBox& trak, TrackTables& tables, const MissingSamples& missing, uint32_t movieTimescale)
      : trak_(trak),
        tables_(tables),
        missesSamples_(missing.areAny()),
        movieTimescale_(movieTimescale),
        timescale_(static_cast<uint32_t>(headerTimescaleField.load(trak.find({"mdia", "mdhd"})).value_or(0))),
        handler_(handlerOf(trak)),
        samplesBefore_(tables.sampleCount() + missing.count),
        edits_(editListOf(trak)) {
    if (timescale_ == 0) throw MovieError::damaged("A track has no timescale");
    if (isVideo()) pictures_.emplace(tables, missing);
    keep(all());
  }

  bool isVideo() const { return handler_ == "vide"; }
  bool isSound() const { return handler_ == "soun"; }
  bool missesSamples() const { return missesSamples_; }
  bool isEmpty() const { return tables_.sampleCount() == 0; }
  uint64_t samplesBefore() const { return samplesBefore_; }
  uint64_t samplesLost() const { return samplesBefore_ - tables_.sampleCount(); }

  /// When the track ends, in seconds of the movie.
  double end() const { return std::min(shownEnd(), limit_); }

  /// What is left of the track if nothing is shown from a time on, in seconds of the movie.
  Prefix within(double seconds) const {
    if (shownEnd() <= seconds) return kept_;
    const int64_t limit = mediaAt(seconds);
    if (isVideo()) return pictures_->within(limit);
    const uint64_t samples = tables_.samplesDecodedAhead(static_cast<uint64_t>(std::max<int64_t>(limit, 0)));
    return {samples, static_cast<int64_t>(tables_.decodeTime(samples))};
  }

  void cutTo(double seconds) {
    if (shownEnd() <= seconds) return;
    limit_ = seconds;
    const int64_t limit = mediaAt(seconds);
    keep(within(seconds));
    // What lasts until something else comes, as a text or a time code, ends with the movie.
    const auto surplus = static_cast<int64_t>(tables_.duration()) - limit;
    if (!isVideo() && !isSound() && surplus > 0 && surplus < tables_.lastDuration()) {
      tables_.setLastDuration(tables_.lastDuration() - static_cast<uint32_t>(surplus));
    }
  }

  /// Returns how long the track is, in ticks of the movie.
  uint64_t writeTimes() {
    if (samplesLost() == 0 && limit_ == noEnd) return tkhdDurationField.load(trak_.find({"tkhd"})).value_or(0);
    const double ticks = end() * movieTimescale_;
    const std::vector<EditListEntry> entries = editsAhead(ticks);
    // A list stays that would show less than a tick.
    if (!edits_.empty() && (!entries.empty() || isEmpty())) putEdits(trak_, entries);
    const auto length = static_cast<uint64_t>(std::llround(ticks));
    storeDuration(trak_.find({"mdia", "mdhd"}), headerDurationField, tables_.duration());
    storeDuration(trak_.find({"tkhd"}), tkhdDurationField, length);
    return length;
  }

 private:
  Prefix all() const {
    if (isVideo()) return pictures_->within(never);
    return {tables_.sampleCount(), static_cast<int64_t>(tables_.duration())};
  }

  void keep(const Prefix& prefix) {
    kept_ = prefix;
    tables_.truncate(prefix.samples);
  }

  std::vector<PresentedEdit> presented() const {
    if (edits_.empty()) return {{.movieDuration = MediaEdit::latestTime, .mediaStart = 0}};
    auto edits = presentedEdits(edits_, movieTimescale_, timescale_, kept_.end);
    for (PresentedEdit& edit : edits) {
      if (edit.mediaStart) edit.mediaStart = std::max(*edit.mediaStart, -MediaEdit::latestTime);
    }
    return edits;
  }
  double seconds(int64_t movieTicks) const { return static_cast<double>(movieTicks) / movieTimescale_; }
  static double speed(const PresentedEdit& edit) { return static_cast<double>(edit.rate) / layout::normalRate; }

  double shownEnd() const {
    if (isEmpty()) return 0;
    double end = 0;
    for (const PresentedEdit& edit : presented()) {
      if (!edit.mediaStart) continue;
      const int64_t media = kept_.end - *edit.mediaStart;
      if (media <= 0) break;
      const double begin = seconds(edit.movieStart), length = seconds(edit.movieDuration);
      const double shown = edit.rate > 0 ? static_cast<double>(media) / timescale_ / speed(edit) : length;
      end = begin + std::min(length, shown);
      // An edit may be longer than its media by what it was rounded up.
      if (shown < length - seconds(1)) break;
    }
    return end;
  }

  /// Where the media end, in ticks of the track, that are shown before a time.
  int64_t mediaAt(double time) const {
    int64_t end = 0;
    for (const PresentedEdit& edit : presented()) {
      const double length = std::min(time - seconds(edit.movieStart), seconds(edit.movieDuration));
      if (!edit.mediaStart || length <= 0) continue;
      const double media =
          std::clamp(length * speed(edit) * timescale_, 1.0, static_cast<double>(MediaEdit::latestTime));
      end = std::max(end, *edit.mediaStart + static_cast<int64_t>(std::llround(media)));
    }
    return end;
  }

  std::vector<EditListEntry> editsAhead(double ticks) const {
    std::vector<EditListEntry> entries;
    const auto end = static_cast<int64_t>(std::llround(ticks));
    const auto edits = presented();
    for (size_t i = 0; i < edits_.size() && edits[i].movieStart < end; ++i) {
      entries.push_back(edits_[i]);
      // One that reaches to the end of the media does so without a length.
      if (edits_[i].duration > 0) {
        entries.back().duration = std::min(edits[i].movieDuration, end - edits[i].movieStart);
      }
    }
    return entries;
  }

  MovieBox& trak_;
  TrackTables& tables_;
  bool missesSamples_;
  uint32_t movieTimescale_;
  uint32_t timescale_;
  std::string handler_;
  uint64_t samplesBefore_;
  std::vector<EditListEntry> edits_;
  std::optional<PictureOrder> pictures_;
  Prefix kept_;
  double limit_ = noEnd;
};

using EndingTracks = std::vector<EndingTrack>;

/// Calls `use` with the pictures and the sound that there are samples of.
void forEachShown(EndingTracks& tracks, const auto& use) {
  for (EndingTrack& track : tracks) {
    if ((track.isVideo() || track.isSound()) && !track.isEmpty()) use(track);
  }
}

void requireMedia(const EndingTracks& tracks) {
  uint64_t pictures = 0, packets = 0;
  bool hasPictures = false, hasSound = false;
  for (const EndingTrack& track : tracks) {
    if (track.isVideo()) {
      pictures += track.samplesBefore();
      hasPictures = hasPictures || !track.isEmpty();
    } else if (track.isSound()) {
      packets += track.samplesBefore();
      hasSound = hasSound || !track.isEmpty();
    }
  }
  if (pictures > 0 && !hasPictures) {
    throw FragmentsError(fmt::format("The file ends before the first of its {} pictures: download it again", pictures));
  }
  if (pictures == 0 && packets > 0 && !hasSound) {
    throw FragmentsError("The file ends before the first packet of its sound: download it again");
  }
}

/// The time at which pictures and sound are cut; nothing if each keeps its own end.
std::optional<double> commonEnd(EndingTracks& tracks) {
  double end = noEnd, last = 0;
  forEachShown(tracks, [&](const EndingTrack& track) {
    if (track.missesSamples()) end = std::min(end, track.end());
    last = std::max(last, track.end());
  });
  if (end == noEnd || last - end > mostSeconds) return std::nullopt;
  bool isAnyEmpty = false;
  forEachShown(tracks, [&](const EndingTrack& track) { isAnyEmpty = isAnyEmpty || track.within(end).samples == 0; });
  return isAnyEmpty ? std::nullopt : std::optional(end);
}

void cut(EndingTracks& tracks, double end) {
  // Pictures cannot be cut anywhere: the sound follows them.
  forEachShown(tracks, [&](EndingTrack& track) {
    if (!track.isVideo() || track.end() <= end) return;
    track.cutTo(end);
    end = std::min(end, track.end());
  });
  for (EndingTrack& track : tracks) track.cutTo(end);
}

LostEnd summary(const EndingTracks& tracks) {
  LostEnd lost;
  std::optional<double> pictures, sound;
  for (const EndingTrack& track : tracks) {
    (track.isVideo() ? lost.pictures : track.isSound() ? lost.packets : lost.others) += track.samplesLost();
    if (track.isVideo() && !track.isEmpty()) pictures = std::max(pictures.value_or(0), track.end());
    if (track.isSound() && !track.isEmpty()) sound = std::max(sound.value_or(0), track.end());
  }
  lost.secondsKept = pictures ? *pictures : sound.value_or(0);
  const bool endsApart = pictures && sound && lost.packets > 0 && std::abs(*pictures - *sound) > mostSeconds;
  if (endsApart) lost.soundKept = sound;
  return lost;
}

}  // namespace

std::string LostEnd::words() const {
  std::string text = fmt::format("the end of the file is missing: {:.1f}", secondsKept);
  if (secondsBefore) text += fmt::format(" of {:.1f}", std::max(*secondsBefore, secondsKept));
  text += " s kept";
  const auto plural = [](uint64_t count) { return count == 1 ? "" : "s"; };
  if (pictures > 0) {
    text += fmt::format(", {} picture{} lost", pictures, plural(pictures));
  } else if (packets > 0) {
    text += fmt::format(", {} packet{} of the sound lost", packets, plural(packets));
  } else if (others > 0) {
    text += fmt::format(", {} sample{} of other tracks lost", others, plural(others));
  }
  if (tracks > 0) {
    text +=
        fmt::format(", {} track{} lost whose table{} cut off", tracks, plural(tracks), tracks == 1 ? " is" : "s are");
  }
  if (soundKept) text += fmt::format("; the sound ends at {:.1f} s", *soundKept);
  return text;
}

LostEnd cutToCommonEnd(MovieBox& moov, std::vector<TrackTables>& tables, const std::vector<MissingSamples>& missing) {
  MovieBox* header = moov.find({"mvhd"});
  const auto timescale = static_cast<uint32_t>(headerTimescaleField.load(header).value_or(0));
  if (timescale == 0) throw MovieError::damaged("The movie has no timescale");
  EndingTracks tracks;
  uint64_t pictures = 0;
  for (MovieBox& child : moov.children) {
    if (child.type != "trak") continue;
    const size_t index = tracks.size();
    if (handlerOf(child) == "vide") pictures += tables.at(index).sampleCount();
    if (pictures > mostPictures) throw MovieError(MovieError::Case::doesNotFit, "The movie has too many pictures");
    tracks.emplace_back(child, tables.at(index), missing.at(index), timescale);
  }
  requireMedia(tracks);
  if (const auto end = commonEnd(tracks)) cut(tracks, *end);
  uint64_t longest = 0;
  for (EndingTrack& track : tracks) longest = std::max(longest, track.writeTimes());
  storeDuration(header, headerDurationField, longest);
  return summary(tracks);
}

}  // namespace tarn
