#include "remux/detail/LongOffsets.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <vector>

#include "movie/MovieError.h"
#include "movie/MovieTree.h"
#include "mp4/BoxLayout.h"
#include "mp4/SampleTableBuilders.h"
#include "mp4/TableEntries.h"
#include "platform/Log.h"
#include "remux/detail/MovieAccess.h"

namespace tarn {
namespace {

MovieBox* shortTable(MovieBox& trak) {
  return trak.type == "trak" ? trak.find({"mdia", "minf", "stbl", "stco"}) : nullptr;
}

/// The offsets that are there.
std::vector<uint64_t> offsetsIn(const MovieBox& stco) {
  const Bytes table = stco.plainBytes();
  const TableEntries entries(table, layout::chunkOffset32.width, TableEntries::HugeCount::isCut);
  std::vector<uint64_t> offsets;
  offsets.reserve(entries.size());
  for (size_t i = 0; i < entries.size(); ++i) offsets.push_back(layout::load(entries.entry(i), layout::chunkOffset32));
  return offsets;
}

/// The farthest chunk of the 32-bit table of a `moov`'s child; nothing without one.
std::optional<uint64_t> farthestChunk(MovieBox& child) {
  const MovieBox* stco = shortTable(child);
  const auto offsets = stco ? offsetsIn(*stco) : std::vector<uint64_t>();
  return offsets.empty() ? std::nullopt : std::optional(std::ranges::max(offsets));
}

/// The farthest chunk of each child, so that no table is read again and again.
using FarthestChunks = std::vector<std::optional<uint64_t>>;

/// Widens the first table that needs it; false if none does.
bool widenOne(MovieBox& moov, FarthestChunks& farthest, const ChunkOffsetShift& shift) {
  uint64_t place = moov.head.size();
  for (size_t i = 0; i < moov.children.size(); ++i) {
    MovieBox& child = moov.children[i];
    if (farthest[i] >= shift.movesFrom && needs64Bits(*farthest[i] + static_cast<uint64_t>(shift.delta))) {
      log("The chunk offsets of the track at {} of the moov get 64 bits", place);
      MovieBox& stco = *shortTable(child);
      stco = MovieBox::of(buildChunkOffsetBox(offsetsIn(stco), true));
      farthest[i] = farthestChunk(child);
      return true;
    }
    place += child.size();
  }
  return false;
}

}  // namespace

void widenChunkOffsets(Bytes& newMoov, const BoxHeader& oldMoov, const MediaLayout& layout) try {
  const auto shift = [&](uint64_t size) {
    return layout.shift(oldMoov, static_cast<int64_t>(size) - static_cast<int64_t>(oldMoov.size), edit::remuxing);
  };
  if (shift(newMoov.size()).delta <= 0) return;
  MovieBox moov = MovieBox::parse(newMoov, edit::remuxing);
  FarthestChunks farthest;
  std::ranges::transform(moov.children, std::back_inserter(farthest), farthestChunk);
  bool isWidened = false;
  // Each that is widened makes the `moov` longer, and the media move further.
  while (widenOne(moov, farthest, shift(moov.size()))) isWidened = true;
  if (isWidened) newMoov = moov.bytes();
} catch (const MovieError& error) {
  throw remuxError(error);
}

}  // namespace tarn
