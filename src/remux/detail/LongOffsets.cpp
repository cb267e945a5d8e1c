#include "remux/detail/LongOffsets.h"

#include <algorithm>
#include <vector>

#include "movie/MovieError.h"
#include "movie/MovieTree.h"
#include "mp4/BoxLayout.h"
#include "mp4/SampleTableBuilders.h"
#include "mp4/TableRows.h"
#include "platform/Log.h"
#include "remux/detail/MovieAccess.h"

namespace tarn {
namespace {

/// The offsets that are there.
std::vector<uint64_t> offsetsIn(const MovieBox& stco) {
  const Bytes table = stco.plainBytes();
  const TableRows rows(table, layout::chunkOffset32.width, TableRows::HugeCount::isCut);
  std::vector<uint64_t> offsets;
  offsets.reserve(rows.size());
  for (size_t i = 0; i < rows.size(); ++i) offsets.push_back(layout::load(rows.row(i), layout::chunkOffset32));
  return offsets;
}

/// Widens the first table that needs it; false if none does.
bool widenOne(MovieBox& moov, const ChunkOffsetShift& shift) {
  uint64_t place = moov.head.size();
  for (MovieBox& trak : moov.children) {
    MovieBox* stco = trak.type == "trak" ? trak.find({"mdia", "minf", "stbl", "stco"}) : nullptr;
    const auto offsets = stco ? offsetsIn(*stco) : std::vector<uint64_t>();
    const bool isTooNarrow = std::ranges::any_of(offsets, [&](uint64_t offset) {
      return offset >= shift.movesFrom && needs64Bits(offset + static_cast<uint64_t>(shift.delta));
    });
    if (isTooNarrow) {
      log("The chunk offsets of the track at {} of the moov get 64 bits", place);
      *stco = MovieBox::of(buildChunkOffsetBox(offsets, true));
      return true;
    }
    place += trak.size();
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
  bool isWidened = false;
  // Each that is widened makes the `moov` longer, and the media move further.
  while (widenOne(moov, shift(moov.size()))) isWidened = true;
  if (isWidened) newMoov = moov.bytes();
} catch (const MovieError& error) {
  throw remuxError(error);
}

}  // namespace tarn
