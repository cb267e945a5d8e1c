#include "fragments/PlainMovie.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <utility>

#include "movie/MovieError.h"
#include "movie/MovieRewrite.h"
#include "mp4/BoxLayout.h"
#include "mp4/DataExtensions.h"
#include "platform/Checked.h"

namespace tarn {
namespace {

using Case = MovieError::Case;

/// So many ranges that are this small on average are copied byte by byte: a file that is a recipe would have to
/// remember each of them.
constexpr size_t manyRanges = 1 << 16;
constexpr uint64_t smallRange = 1 << 16;

/// The parts of the source that chunks lie in: sorted, none touches another. They come to lie one after the other.
class Media {
 public:
  explicit Media(const std::vector<TrackTables>& tables) {
    size_t chunks = 0;
    const auto forEachChunk = [&](const auto& visit) {
      for (const TrackTables& table : tables) table.forEachChunk(visit);
    };
    forEachChunk([&](uint64_t, uint64_t) { ++chunks; });
    ranges_.reserve(chunks);
    forEachChunk([&](uint64_t offset, uint64_t size) {
      if (!checkedAdd(offset, size)) throw MovieError(Case::doesNotFit, "A chunk lies out of range");
      if (size > 0) ranges_.push_back({offset, offset + size});
    });
    std::ranges::sort(ranges_, {}, &Range::begin);
    join();
    for (Range& range : ranges_) {
      const uint64_t length = range.second - range.begin;
      range.second = size_;
      size_ += length;
    }
  }

  size_t rangeCount() const { return ranges_.size(); }
  uint64_t begin(size_t range) const { return ranges_[range].begin; }
  uint64_t end(size_t range) const {
    const uint64_t newEnd = range + 1 < ranges_.size() ? ranges_[range + 1].second : size_;
    return ranges_[range].begin + (newEnd - ranges_[range].second);
  }
  /// Of all.
  uint64_t size() const { return size_; }

  /// Where a chunk comes to lie, counted from the first media byte. One without a byte may lie anywhere.
  uint64_t newPlace(uint64_t offset) const {
    const auto behind = std::ranges::upper_bound(ranges_, offset, {}, &Range::begin);
    if (behind == ranges_.begin()) return 0;
    const auto range = static_cast<size_t>(behind - ranges_.begin()) - 1;
    return ranges_[range].second + std::min(offset, end(range)) - begin(range);
  }

 private:
  /// There may be millions.
  struct Range {
    uint64_t begin;
    uint64_t second;  ///< its end; once all are there, where it comes to lie
  };

  /// Makes one of each row of ranges that touch.
  void join() {
    size_t last = 0;
    for (size_t i = 1; i < ranges_.size(); ++i) {
      if (ranges_[i].begin <= ranges_[last].second) {
        ranges_[last].second = std::max(ranges_[last].second, ranges_[i].second);
      } else {
        ranges_[++last] = ranges_[i];
      }
    }
    if (!ranges_.empty()) ranges_.resize(last + 1);
    ranges_.shrink_to_fit();
  }

  std::vector<Range> ranges_;
  uint64_t size_ = 0;
};

void moveChunks(PlainMovie& movie, const std::function<uint64_t(uint64_t)>& place) {
  for (TrackTables& table : movie.tables) table.moveChunks(place);
}

Bytes mdatHeader(uint64_t mediaSize) {
  Bytes header;
  ByteWriter(header).uint32(1).text("mdat").uint64(layout::longBoxHeaderSize + mediaSize);
  return header;
}

/// Gives the movie its tables, with the places that the chunks have in the file. There may be millions of samples: each
/// table is built once.
void placeMedia(PlainMovie& movie, const Media& media) {
  moveChunks(movie, [&](uint64_t offset) { return media.newPlace(offset); });
  putTables(movie.moov, movie.tables);
  const uint64_t ahead = movie.ftyp.size() + movie.moov.size() + layout::longBoxHeaderSize;
  const bool isLong = ahead + media.size() > std::numeric_limits<uint32_t>::max();
  putChunkOffsets(movie.moov, movie.tables, isLong);
  const uint64_t begin = movie.ftyp.size() + movie.moov.size() + layout::longBoxHeaderSize;
  moveChunks(movie, [&](uint64_t offset) { return begin + offset; });
  putChunkOffsets(movie.moov, movie.tables, isLong);
}

/// Copies ranges of the source, one after the other.
class RangeCopy {
 public:
  RangeCopy(FileHandle& source, FileHandle& target, const Media& media, const std::function<void(double)>& poll)
      : source_(source), target_(target), media_(media), poll_(poll) {}

  void copyAll() {
    const size_t count = media_.rangeCount();
    const bool areSmall = count > manyRanges && media_.size() / count < smallRange;
    for (size_t range = 0; range < count; ++range) {
      areSmall ? read(media_.begin(range), media_.end(range)) : copy(media_.begin(range), media_.end(range));
    }
    flush();
    if (media_.size() > 0) poll_(1);
  }

 private:
  void copy(uint64_t at, uint64_t end) {
    while (at < end) {
      source_.seek(at);
      const uint64_t copied = source_.copyRange(target_, std::min(rewritePieceSize, end - at));
      if (copied == 0) throwCutOff(at);
      at += copied;
      advance(copied);
    }
  }

  void read(uint64_t at, uint64_t end) {
    while (at < end) {
      const auto size = static_cast<size_t>(std::min(bufferSize, end - at));
      if (buffer_.size() + size > bufferSize) flush();
      const size_t begin = buffer_.size();
      buffer_.resize(begin + size);
      source_.seek(at);
      if (source_.readInto(std::span(buffer_).subspan(begin)) < size) throwCutOff(at);
      at += size;
      advance(size);
    }
  }

  void flush() {
    target_.write(buffer_);
    buffer_.clear();
  }

  void advance(uint64_t bytes) {
    done_ += bytes;
    if (done_ - told_ < rewritePieceSize) return;
    told_ = done_;
    poll_(static_cast<double>(done_) / static_cast<double>(media_.size()));
  }

  [[noreturn]] static void throwCutOff(uint64_t at) {
    throw MovieError(Case::cutOff, fmt::format("The source ends at {}, before its samples", at));
  }

  static constexpr uint64_t bufferSize = 1 << 20;

  FileHandle& source_;
  FileHandle& target_;
  const Media& media_;
  const std::function<void(double)>& poll_;
  Bytes buffer_;
  uint64_t done_ = 0;
  uint64_t told_ = 0;
};

}  // namespace

void writePlainMovie(FileHandle& source, FileHandle& target, PlainMovie movie,
                     const std::function<void(double)>& poll) {
  const Media media(movie.tables);
  placeMedia(movie, media);
  movie.tables.clear();
  target.write(movie.ftyp);
  movie.moov.writeTo(target);
  movie.moov = {};
  target.write(mdatHeader(media.size()));
  RangeCopy(source, target, media, poll).copyAll();
}

}  // namespace tarn
