#include "fragments/detail/FragmentEdits.h"

#include <fmt/format.h>

#include <algorithm>

#include "fragments/FragmentsError.h"
#include "movie/MovieError.h"
#include "mp4/EditTimeline.h"

namespace tarn {
namespace {

constexpr int64_t latest = MediaEdit::latestTime;

void requireInRange(Int128 time) {
  if (time > latest || time < -latest) throw MovieError::damaged("an edit list reaches out of range");
}

Int128 roundedUp(Int128 value, Int128 divisor) {
  return value <= 0 ? value / divisor : (value + divisor - 1) / divisor;
}

}  // namespace

FragmentEdits::FragmentEdits(const std::vector<EditListEntry>& source, const FragmentTrack& track,
                             uint32_t movieTimescale)
    : movieTimescale_(movieTimescale),
      timescale_(track.timescale()),
      start_(track.start()),
      media_(track.media()),
      hasList_(!source.empty()) {
  if (track.tables().sampleCount() == 0) return;
  std::vector<EditListEntry> list = source;
  if (list.empty() || damageOf(list, start_ + media_.end) != EditListDamage::none) list = {{}};
  for (size_t i = 0; i < list.size(); ++i) add(i + 1 < list.size() ? list[i] : lengthened(list[i], track));
}

/// The last entry as one that shows the media to their end, if it was made for the samples of the `moov` alone.
EditListEntry FragmentEdits::lengthened(EditListEntry entry, const FragmentTrack& track) const {
  const bool isHybrid = track.samplesInMoov() > 0 && track.samplesInMoov() < track.tables().sampleCount();
  if (!isHybrid || entry.isEmpty() || entry.duration == 0) return entry;
  requireInRange(entry.duration);
  const Int128 tick = Int128{timescale_} / movieTimescale_ + 1;
  const Int128 end = entry.mediaTime + dividedAndRounded(Int128{entry.duration} * timescale_, movieTimescale_);
  const TrackTables::Composition& listed = track.mediaInMoov();
  if (end + tick >= media_.end) return entry;
  if (end + tick < listed.end - std::max<int64_t>(listed.start, 0) || end - tick > listed.end) {
    throw FragmentsError(fmt::format("The edit list of track {} ends amid the samples, and does not say which it shows",
                                     track.trackID()));
  }
  entry.duration = 0;
  return entry;
}

void FragmentEdits::add(const EditListEntry& entry) {
  requireInRange(entry.duration);
  requireInRange(entry.mediaTime);
  const Int128 stated = Int128{entry.duration} * timescale_;
  if (entry.isEmpty()) {
    clock_ += stated;
    return requireInRange(clock_ / timescale_);
  }
  const bool isPlain = entry.mediaRate == layout::normalRate;
  const int64_t wanted = entry.mediaTime - start_;
  // Media before the first sample are not there: it is shown when it was, and nothing until then.
  const int64_t media = wanted >= 0 ? wanted : std::max<int64_t>(media_.start, 0);
  const int64_t end = std::max(media_.end, media);
  Piece piece{.begin = clock_ + Int128{media - wanted} * movieTimescale_,
              .end = clock_ + (entry.duration == 0 ? Int128{end - wanted} * movieTimescale_ : stated),
              .media = media,
              .rate = entry.mediaRate,
              .reachesEnd = entry.duration == 0};
  clock_ = piece.end;
  requireInRange(clock_ / timescale_);
  const Int128 mostEnd = piece.begin + Int128{end - media} * movieTimescale_;
  if (isPlain && end > media && piece.end > mostEnd) {
    piece.end = mostEnd;
    piece.reachesEnd = true;
  }
  if (piece.end > piece.begin) pieces_.push_back(piece);
}

/// How long the first sample of a piece comes after its begin, track timescale.
int64_t FragmentEdits::latenessOf(const Piece& piece) const {
  return piece.rate == layout::normalRate ? std::max<int64_t>(media_.start - piece.media, 0) : 0;
}

std::optional<ExactTime> FragmentEdits::firstShown() const {
  if (pieces_.empty()) return std::nullopt;
  const Piece& first = pieces_.front();
  return ExactTime{first.begin + Int128{latenessOf(first)} * movieTimescale_, timescale_};
}

std::vector<EditListEntry> FragmentEdits::entries(const ExactTime& movieStart) const {
  std::vector<Piece> pieces = pieces_;
  const bool moves = start_ > 0 || movieStart.numerator > 0;
  if (moves && !pieces.empty()) {
    Piece& first = pieces.front();
    const Int128 length = (first.end - first.begin) / movieTimescale_;
    const auto late = static_cast<int64_t>(std::min<Int128>(latenessOf(first), length));
    first.begin += Int128{late} * movieTimescale_;
    first.media += late;
  }
  const Int128 denominator = Int128{timescale_} * movieStart.denominator;
  const auto ticks = [&](Int128 time, bool roundsUp) {
    const Int128 value = time * movieStart.denominator - movieStart.numerator * timescale_;
    return static_cast<int64_t>(roundsUp ? roundedUp(value, denominator) : dividedAndRounded(value, denominator));
  };
  std::vector<EditListEntry> entries;
  int64_t clock = 0;
  for (const Piece& piece : pieces) {
    const int64_t begin = std::max(ticks(piece.begin, false), clock);
    const int64_t end = std::max(ticks(piece.end, piece.reachesEnd), begin + 1);
    if (begin > clock) entries.push_back({begin - clock, layout::emptyEdit});
    entries.push_back({end - begin, piece.media, piece.rate});
    clock = end;
  }
  const bool isWhole = entries.size() == 1 && entries.front().mediaTime == 0 && pieces.front().reachesEnd &&
                       pieces.front().rate == layout::normalRate;
  return isWhole && !hasList_ ? std::vector<EditListEntry>() : entries;
}

}  // namespace tarn
