#include "mp4/EditTimeline.h"

#include <algorithm>

#include "mp4/SampleTableBuilders.h"
#include "platform/Int128.h"

namespace tarn {
namespace {

constexpr int64_t latest = MediaEdit::latestTime;

/// A duration has no sign in the file.
uint64_t durationOf(const EditListEntry& entry) {
  return static_cast<uint64_t>(entry.duration);
}

Error outOfRange() {
  return sampleTableError("elst reaches out of range");
}

int64_t inRange(int64_t time) {
  if (time > latest || time < -latest) throw outOfRange();
  return time;
}

/// To the nearest tick.
int64_t rescaled(uint64_t duration, uint32_t toScale, uint32_t fromScale) {
  Int128 value = dividedAndRounded(static_cast<Int128>(duration) * toScale, fromScale);
  if (value > latest) throw outOfRange();
  return static_cast<int64_t>(value);
}

}  // namespace

std::vector<MediaEdit> mediaEdits(const std::vector<EditListEntry>& entries, uint32_t movieTimescale,
                                  uint32_t trackTimescale, int64_t mediaDuration) {
  // Without a list each time stands for itself, negative ones too.
  if (entries.empty()) return {{.presentationStart = -latest, .mediaStart = -latest}};
  if (movieTimescale == 0 || trackTimescale == 0) throw sampleTableError("elst without a timescale");
  std::vector<MediaEdit> edits;
  int64_t clock = 0;
  for (const EditListEntry& entry : entries) {
    int64_t length = rescaled(durationOf(entry), trackTimescale, movieTimescale);
    if (!entry.isEmpty()) {
      MediaEdit edit{.presentationStart = clock, .mediaStart = inRange(entry.mediaTime)};
      if (entry.duration == 0) {
        length = std::max<int64_t>(mediaDuration - entry.mediaTime, 0);
      } else {
        edit.mediaEnd = inRange(entry.mediaTime + length);
      }
      edits.push_back(edit);
    }
    clock = inRange(clock + inRange(length));
  }
  return edits;
}

std::vector<PresentedEdit> presentedEdits(const std::vector<EditListEntry>& entries, uint32_t movieTimescale,
                                          uint32_t trackTimescale, int64_t mediaEnd) {
  std::vector<PresentedEdit> edits;
  edits.reserve(entries.size());
  int64_t clock = 0;
  for (const EditListEntry& entry : entries) {
    PresentedEdit edit{.movieStart = clock, .rate = entry.mediaRate};
    edit.movieDuration = static_cast<int64_t>(std::min<uint64_t>(durationOf(entry), latest));
    if (!entry.isEmpty()) edit.mediaStart = std::min(entry.mediaTime, latest);
    if (entry.duration == 0 && !entry.isEmpty() && &entry == &entries.back() && entry.mediaRate > 0) {
      int64_t length = std::max<int64_t>(mediaEnd - *edit.mediaStart, 0);
      edit.movieDuration = movieTicks(length, trackTimescale, movieTimescale, entry.mediaRate);
    }
    clock = std::min(clock + edit.movieDuration, latest);
    edits.push_back(edit);
  }
  return edits;
}

int64_t movieTicks(int64_t mediaLength, uint32_t trackTimescale, uint32_t movieTimescale, int32_t rate) {
  // 63 bits times 32 bits times 16 bits.
  Int128 numerator = static_cast<Int128>(mediaLength) * movieTimescale * layout::normalRate;
  Int128 denominator = static_cast<Int128>(trackTimescale) * rate;
  return static_cast<int64_t>(std::min<Int128>((numerator + denominator - 1) / denominator, latest));
}

EditListDamage damageOf(const std::vector<EditListEntry>& entries, int64_t mediaEnd) {
  bool showsMedia = false;
  bool reachesMedia = false;
  for (const EditListEntry& entry : entries) {
    if (entry.mediaTime < layout::emptyEdit) return EditListDamage::mediaTimeBelowMinusOne;
    showsMedia = showsMedia || !entry.isEmpty();
    reachesMedia = reachesMedia || (!entry.isEmpty() && entry.mediaTime < mediaEnd);
  }
  if (entries.empty() || reachesMedia) return EditListDamage::none;
  return showsMedia ? EditListDamage::liesBehindMedia : EditListDamage::showsNothing;
}

}  // namespace tarn
