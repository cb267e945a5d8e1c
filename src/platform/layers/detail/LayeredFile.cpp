#include "platform/layers/detail/LayeredFile.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <utility>

#include "platform/Error.h"

namespace tarn {
namespace {

constexpr uint64_t largestFile = std::numeric_limits<int64_t>::max();

}  // namespace

LayeredFile::LayeredFile(ByteStorePointer store, uint64_t size) : origin_(std::move(store)), originSize_(size) {
  if (size > 0) extents_.emplace(0, Extent{size, origin_, 0});
}

uint64_t LayeredFile::size() const {
  return extents_.empty() ? 0 : extents_.rbegin()->first + extents_.rbegin()->second.size;
}

bool LayeredFile::isUntouched() const {
  if (!origin_ || size() != originSize_) return false;
  return extents_.empty() ||
         (extents_.size() == 1 && extents_.begin()->second.store == origin_ && extents_.begin()->second.offset == 0);
}

size_t LayeredFile::read(uint64_t at, std::span<uint8_t> target) const {
  size_t done = 0;
  for (const Extent& extent : parts(at, target.size())) {
    const auto piece = target.subspan(done, static_cast<size_t>(extent.size));
    if (extent.store) {
      extent.store->handle->seek(extent.offset);
      const size_t count = extent.store->handle->readInto(piece);
      done += count;
      if (count < piece.size()) break;
    } else {
      std::ranges::fill(piece, uint8_t{0});
      done += piece.size();
    }
  }
  return done;
}

std::vector<LayeredFile::Extent> LayeredFile::parts(uint64_t at, uint64_t count) const {
  std::vector<Extent> parts;
  const uint64_t fileSize = size();
  if (at >= fileSize) return parts;
  uint64_t left = std::min(count, fileSize - at);
  for (auto next = std::prev(extents_.upper_bound(at)); left > 0; ++next) {
    const uint64_t skipped = at - next->first;
    parts.push_back(next->second.part(skipped, std::min(left, next->second.size - skipped)));
    at += parts.back().size;
    left -= parts.back().size;
  }
  return parts;
}

void LayeredFile::put(uint64_t at, Extent extent) {
  if (extent.size == 0) return;
  if (at > largestFile || extent.size > largestFile - at) throw PosixError(EFBIG, "write");
  if (at > size()) resize(at);
  const uint64_t end = at + extent.size;
  extents_.erase(split(at), split(end));
  const auto place = extents_.emplace(at, std::move(extent)).first;
  const auto next = std::next(place);
  if (next != extents_.end()) join(next);
  join(place);
}

void LayeredFile::resize(uint64_t size) {
  if (size > largestFile) throw PosixError(EFBIG, "truncate");
  const uint64_t end = this->size();
  if (size > end) {
    put(end, {.size = size - end});
  } else {
    extents_.erase(split(size), extents_.end());
  }
}

LayeredFile::Extents::iterator LayeredFile::split(uint64_t at) {
  const auto next = extents_.lower_bound(at);
  if ((next != extents_.end() && next->first == at) || at >= size()) return next;
  Extent& front = std::prev(next)->second;
  const uint64_t kept = at - std::prev(next)->first;
  Extent back = front.part(kept, front.size - kept);
  front.size = kept;
  return extents_.emplace_hint(next, at, std::move(back));
}

void LayeredFile::join(Extents::iterator extent) {
  if (extent == extents_.begin()) return;
  Extent& front = std::prev(extent)->second;
  const Extent& back = extent->second;
  if (front.store != back.store || (front.store && front.offset + front.size != back.offset)) return;
  front.size += back.size;
  extents_.erase(extent);
}

}  // namespace tarn
