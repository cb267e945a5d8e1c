#include "recover/detail/FoundMedia.h"

#include <algorithm>
#include <limits>
#include <numeric>

namespace tarn {
namespace {

constexpr size_t mostHeldBack = 16;  // pictures in a decoder (ITU-T H.264 and H.265 A.4)

/// Counts of the pictures from `first` on, ascending.
std::vector<int64_t> countsFrom(const std::vector<FoundPicture>& pictures, size_t first) {
  std::vector<int64_t> counts;
  for (size_t i = first; i < pictures.size(); ++i) counts.push_back(pictures[i].order.count);
  std::ranges::sort(counts);
  return counts;
}

/// The smallest distance of two counts in one sequence; 0 without two.
int64_t smallestStep(const std::vector<FoundPicture>& pictures) {
  int64_t step = std::numeric_limits<int64_t>::max();
  for (size_t first = 0, end = 0; first < pictures.size(); first = end) {
    std::vector<int64_t> counts;
    while (end < pictures.size() && pictures[end].order.sequence == pictures[first].order.sequence) {
      counts.push_back(pictures[end++].order.count);
    }
    std::ranges::sort(counts);
    for (size_t i = 1; i < counts.size(); ++i) {
      if (counts[i] > counts[i - 1]) step = std::min(step, counts[i] - counts[i - 1]);
    }
  }
  return step == std::numeric_limits<int64_t>::max() ? 0 : step;
}

bool hasHole(const std::vector<int64_t>& counts, int64_t step) {
  for (size_t i = counts.size() - std::min(counts.size(), 2 * mostHeldBack) + 1; i < counts.size(); ++i) {
    if (counts[i] - counts[i - 1] > step) return true;
  }
  return false;
}

}  // namespace

uint64_t FoundMedia::soundSamples(const RecordedSound& recorded) const {
  if (!recorded.isPCM) return sound.size();
  uint64_t samples = 0;
  for (const FoundSound& piece : sound) samples += piece.size / recorded.blockSize;
  return samples;
}

double FoundMedia::secondsOfPictures(const RecordedPictures& recorded) const {
  return static_cast<double>(pictures.size()) * recorded.duration / recorded.timescale;
}

double FoundMedia::secondsOfSound(const RecordedSound& recorded) const {
  return static_cast<double>(soundSamples(recorded)) * recorded.framesInSample / recorded.rate;
}

void FoundMedia::breakAt(uint64_t offset) {
  stop = std::min(stop, offset);
  while (!pictures.empty() && pictures.back().offset >= offset) pictures.pop_back();
  while (!sound.empty() && sound.back().offset >= offset) sound.pop_back();
}

void FoundMedia::dropPicturesBehindHole() {
  const int64_t step = smallestStep(pictures);
  if (step == 0) return;
  std::vector<FoundPicture> kept = pictures;
  for (size_t dropped = 0; dropped <= mostHeldBack && !kept.empty(); ++dropped, kept.pop_back()) {
    size_t first = kept.size() - 1;
    while (first > 0 && kept[first - 1].order.sequence == kept.back().order.sequence) --first;
    if (hasHole(countsFrom(kept, first), step)) continue;
    pictures = std::move(kept);
    return;
  }
}

std::vector<int64_t> compositionTimes(const std::vector<FoundPicture>& pictures, const RecordedPictures& recorded) {
  std::vector<size_t> shown(pictures.size());
  std::iota(shown.begin(), shown.end(), size_t{0});
  std::ranges::stable_sort(shown, {}, [&](size_t index) { return pictures[index].order; });
  std::vector<int64_t> times(pictures.size());
  for (size_t place = 0; place < shown.size(); ++place) {
    times[shown[place]] = recorded.firstCompositionTime + static_cast<int64_t>(place) * recorded.duration;
  }
  return times;
}

}  // namespace tarn
