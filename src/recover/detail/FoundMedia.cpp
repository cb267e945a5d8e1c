#include "recover/detail/FoundMedia.h"

#include <algorithm>
#include <limits>
#include <numeric>

namespace tarn {
namespace {

constexpr size_t mostHeldBack = 16;  // pictures in a decoder (ITU-T H.264 and H.265 A.4)

/// Counts of the pictures from `first` to `end`, ascending.
std::vector<int64_t> countsOf(const std::vector<FoundPicture>& pictures, size_t first, size_t end) {
  std::vector<int64_t> counts;
  for (size_t i = first; i < end; ++i) counts.push_back(pictures[i].order.count);
  std::ranges::sort(counts);
  return counts;
}

/// The smallest distance of two counts in one sequence; 0 without two.
int64_t smallestStep(const std::vector<FoundPicture>& pictures) {
  int64_t step = std::numeric_limits<int64_t>::max();
  for (size_t first = 0, end = 0; first < pictures.size(); first = end) {
    while (end < pictures.size() && pictures[end].order.sequence == pictures[first].order.sequence) ++end;
    const std::vector<int64_t> counts = countsOf(pictures, first, end);
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
  return recorded.seconds(pictures.size());
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
  const size_t fewest = pictures.size() - std::min(pictures.size() - 1, mostHeldBack);
  for (size_t kept = pictures.size(); kept >= fewest; --kept) {
    size_t first = kept - 1;
    while (first > 0 && pictures[first - 1].order.sequence == pictures[kept - 1].order.sequence) --first;
    if (hasHole(countsOf(pictures, first, kept), step)) continue;
    pictures.resize(kept);
    return;
  }
}

std::vector<int64_t> compositionTimes(const std::vector<FoundPicture>& pictures, const RecordedPictures& recorded) {
  std::vector<size_t> shown(pictures.size());
  std::iota(shown.begin(), shown.end(), size_t{0});
  std::ranges::stable_sort(shown, {}, [&](size_t index) { return pictures[index].order; });
  std::vector<int64_t> times(pictures.size());
  for (size_t place = 0; place < shown.size(); ++place) {
    times[shown[place]] = recorded.firstCompositionTime + recorded.timeOf(place);
  }
  return times;
}

}  // namespace tarn
