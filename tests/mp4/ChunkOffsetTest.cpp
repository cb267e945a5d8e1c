#include <gtest/gtest.h>

#include "mp4/ChunkOffsetTable.h"
#include "support/BoxBuilder.h"
#include "support/LogCapture.h"

namespace tarn {
namespace {

using namespace test;

Bytes movie(const Bytes& table1, const Bytes& table2) {
  return box("moov", {trackBox("vide", {table1}), trackBox("soun", {table2})});
}

TEST(ChunkOffsets, MoveInAllTracks) {
  const LogCapture quiet;
  const ChunkOffsetShift grown{.delta = 1000}, shrunk{.delta = -200}, behind{.delta = 10, .movesFrom = 500};
  const std::tuple<ChunkOffsetShift, Bytes, Bytes> cases[] = {
      {{.delta = 0}, fullBox("stco", {1, 5}), fullBox("stco", {1, 5})},
      {grown, fullBox("stco", {2, 5, 4294967000}), fullBox("stco", {2, 1005, 4294967295})},
      {grown, fullBox("co64", {1, 0, 4294967000}), fullBox("co64", {1, 1, 704})},
      {shrunk, fullBox("stco", {2, 100, 200}), fullBox("stco", {2, 0, 0})},
      {shrunk, fullBox("co64", {1, 0, 100}), fullBox("co64", {1, UINT32_MAX, UINT32_MAX - 99})},
      {behind, fullBox("stco", {3, 100, 499, 500}), fullBox("stco", {3, 100, 499, 510})},
      {grown, fullBox("stco", {10, 1, 2, 3}), fullBox("stco", {10, 1001, 1002, 1003})},
      {grown, fullBox("co64", {UINT32_MAX, 0, 1, 0}), fullBox("co64", {UINT32_MAX, 0, 1001, 0})},
      {grown, fullBox("stco", {}), fullBox("stco", {})},
  };
  for (const auto& [shift, before, after] : cases) {
    Bytes moov = movie(before, before);
    ChunkOffsetTable::adjustAllInMoov(moov, shift);
    EXPECT_EQ(moov, movie(after, after));
  }
}

}  // namespace
}  // namespace tarn
