#include "presentation/detail/SampleOrder.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <utility>

namespace tarn {

SampleOrder::SampleOrder(const SampleTimes& times, uint32_t sampleCount, std::string_view handler)
    : times_(times), sampleCount_(sampleCount), holdsPictures_(handler == "vide") {
  if (!holdsPictures_) return;
  pictures_.reserve(sampleCount);
  for (SampleTimes::Cursor cursor(times, 0); cursor.sample() < sampleCount; cursor.advance()) {
    pictures_.push_back({cursor.time().compositionTime, cursor.sample()});
  }
  if (pictures_.empty()) return;
  std::ranges::sort(pictures_, {}, [](const Picture& picture) { return std::pair(picture.start, picture.sample); });
  picturesEnd_ = pictures_.back().start + SampleTimes::Cursor(times, pictures_.back().sample).time().delta;
  size_t kept = 0;
  for (uint32_t i = 0; i < pictures_.size(); ++i) {
    if (end(i) > start(i)) pictures_[kept++] = pictures_[i];
  }
  pictures_.resize(kept);
}

int64_t SampleOrder::start(uint32_t place) const {
  return holdsPictures_ ? pictures_[place].start : SampleTimes::Cursor(times_, place).time().decodeTime;
}

int64_t SampleOrder::end(uint32_t place) const {
  if (holdsPictures_) return place + 1 < pictures_.size() ? pictures_[place + 1].start : picturesEnd_;
  SampleTime time = SampleTimes::Cursor(times_, place).time();
  return time.decodeTime + time.delta;
}

int64_t SampleOrder::mediaEnd() const {
  if (!holdsPictures_) return times_.duration();
  return picturesEnd_;
}

uint32_t SampleOrder::countWithLength(PlaceRange range) const {
  return range.end - range.first - (holdsPictures_ ? 0 : times_.countWithoutLength(range.first, range.end));
}

uint32_t SampleOrder::firstFrom(int64_t time) const {
  if (!holdsPictures_) return times_.firstDecodedFrom(time);
  return static_cast<uint32_t>(std::ranges::lower_bound(pictures_, time, {}, &Picture::start) - pictures_.begin());
}

uint32_t SampleOrder::firstEndingBehind(int64_t time) const {
  if (holdsPictures_) {
    const auto next = std::ranges::upper_bound(pictures_, time, {}, &Picture::start);
    const auto place = static_cast<uint32_t>(next - pictures_.begin());
    const bool isBehindAll = next == pictures_.end() && time >= picturesEnd_;
    return place == 0 || isBehindAll ? place : place - 1;
  }
  if (time >= times_.duration()) return sampleCount_;
  // A sample ends where the next one begins.
  uint32_t next = times_.firstDecodedFrom(time + 1);
  return next == 0 ? 0 : next - 1;
}

EditShowing showingOf(const SampleOrder& order, const LaidEdit& edit, MovieTime tick) {
  uint32_t first = order.firstEndingBehind(edit.mediaStart);
  if (edit.holds()) {
    bool isThere = first < order.count() && order.start(first) <= edit.mediaStart;
    PlaceRange held{first, isThere ? first + 1 : first};
    return {held, held, edit.start, edit.end};
  }
  auto part = [&](uint32_t place) {
    MovieTime begin = edit.at(order.start(place));
    MovieTime end = edit.at(order.end(place));
    MovieTime seen = std::min(end, edit.end) - std::max(begin, edit.start);
    return seen > tick || 2 * seen >= end - begin;
  };
  PlaceRange shown{first, order.firstFrom(edit.mediaEndTouched)};
  while (order.holdsPictures() && !shown.isEmpty() && !part(shown.first)) ++shown.first;
  while (order.holdsPictures() && !shown.isEmpty() && !part(shown.end - 1)) --shown.end;
  if (shown.isEmpty()) return {};
  PlaceRange whole{order.firstFrom(edit.mediaStart), order.firstEndingBehind(edit.mediaEnd)};
  return {shown, whole.isEmpty() ? PlaceRange() : whole, std::max(edit.start, edit.at(order.start(shown.first))),
          std::min(edit.end, edit.at(order.end(shown.end - 1)))};
}

std::vector<PlaceRange> PlaceSet::add(PlaceRange range) {
  std::vector<PlaceRange> added;
  if (range.isEmpty()) return added;
  auto next = ends_.upper_bound(range.first);
  if (next != ends_.begin() && std::prev(next)->second >= range.first) --next;
  PlaceRange merged = range;
  uint32_t at = range.first;
  while (next != ends_.end() && next->first <= range.end) {
    if (at < next->first) added.push_back({at, next->first});
    at = std::max(at, next->second);
    merged = {std::min(merged.first, next->first), std::max(merged.end, next->second)};
    next = ends_.erase(next);
  }
  if (at < range.end) added.push_back({at, range.end});
  ends_.emplace(merged.first, merged.end);
  return added;
}

uint32_t PlaceSet::count(const SampleOrder& order) const {
  uint32_t count = 0;
  for (const auto& [first, end] : ends_) count += order.countWithLength({first, end});
  return count;
}

}  // namespace tarn
