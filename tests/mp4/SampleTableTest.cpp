#include <gmock/gmock.h>

#include <algorithm>

#include "mp4/ByteArray.h"
#include "mp4/DataExtensions.h"
#include "mp4/MP4SampleTableParser.h"
#include "mp4/SampleTableBuilders.h"
#include "support/BoxBuilder.h"
#include "support/FileTest.h"

namespace tarn {
namespace {

using namespace test;
using testing::ElementsAre;

class SampleTable : public FileTest {
 protected:
  MP4SampleTableParser parse(const std::vector<Bytes>& boxes, size_t media = 1000) {
    Bytes contents;
    for (const Bytes& box : boxes) ByteWriter(contents).bytes(box);
    Bytes stbl = box("stbl", {contents});
    MP4SampleTableParser table;
    table.parseSampleTable(*open(joined({stbl, Bytes(media)})), {.size = stbl.size(), .type = "stbl"});
    return table;
  }

  const Bytes stsz_ = fullBox("stsz", {0, 3, 10, 20, 30});
  const Bytes stsc_ = fullBox("stsc", {2, 1, 2, 1, 2, 1, 1});
  const Bytes stco_ = fullBox("stco", {2, 100, 500});
};

std::vector<uint64_t> offsetsOf(const std::vector<SampleInfo>& samples) {
  std::vector<uint64_t> offsets;
  for (const auto& sample : samples) offsets.push_back(sample.fileOffset);
  return offsets;
}

TEST_F(SampleTable, FindsEachSample) {
  auto table = parse({stsz_, stsc_, stco_});
  EXPECT_THAT(offsetsOf(table.allSamples()), ElementsAre(100, 110, 500));
  EXPECT_EQ(table.sampleInfo(1), (SampleInfo{1, 110, 20, true}));
  for (int64_t outside : {3, -1}) {
    EXPECT_EQ(failureOf([&] { table.sampleInfo(outside); }), "Sample index out of range");
    EXPECT_EQ(failureOf([&] { table.sampleDescriptionIndex(outside); }), "Sample index out of range");
  }

  // A chunk may be empty, stco wins over co64, stsz may be compact, a last row may stand behind all chunks.
  table = parse({fullBox("stsz", {500, 3}), fullBox("stsc", {4, 1, 1, 1, 2, 0, 1, 3, 2, 4, 9, 1, 1}),
                 fullBox("co64", {1, 0, 1}), fullBox("stco", {3, 1, 2, 3})},
                5000);
  EXPECT_THAT(offsetsOf(table.allSamples()), ElementsAre(1, 3, 503));
  EXPECT_THAT(table.usedSampleDescriptionIndices(), ElementsAre(1, 4));
  // Rows count chunks by their differences, whatever number the first has.
  table = parse({stsz_, fullBox("stsc", {2, 2, 1, 1, 3, 2, 1}), fullBox("stco", {3, 1, 100, 500})});
  EXPECT_THAT(offsetsOf(table.allSamples()), ElementsAre(1, 100, 120));
  table = parse({fullBox("stz2", {8, 3, 0x0A141E00}), fullBox("stsc", {1, 1, 3, 1}), fullBox("co64", {1, 1, 5})});
  EXPECT_THAT(offsetsOf(table.allSamples()), ElementsAre(0x100000005u, 0x10000000Fu, 0x100000023u));
}

TEST_F(SampleTable, KnowsSyncSamples) {
  Bytes stsz = fullBox("stsz", {4, 6}), stsc = fullBox("stsc", {1, 1, 6, 1}), stco = fullBox("stco", {1, 100});
  auto table = parse({stsz, stsc, stco, fullBox("stss", {3, 5, 1, 5})});
  EXPECT_THAT(offsetsOf(table.syncSamplesOnly()), ElementsAre(100, 116));
  auto all = table.allSamples();
  for (size_t i = 0; i < 6; ++i) {
    EXPECT_EQ(all[i].isSyncSample, i == 0 || i == 4);
    EXPECT_EQ(table.sampleInfo(static_cast<int64_t>(i)), all[i]);
  }
  for (const Bytes& none : {Bytes(), fullBox("stss", {0})}) {
    auto samples = parse({stsz, stsc, stco, none}).syncSamplesOnly();
    EXPECT_EQ(std::ranges::count(samples, true, &SampleInfo::isSyncSample), 6);
  }
  // Numbers behind the last sample are left out.
  EXPECT_THAT(offsetsOf(parse({stsz, stsc, stco, fullBox("stss", {3, 2, 7, UINT32_MAX})}).syncSamplesOnly()),
              ElementsAre(104));
}

TEST_F(SampleTable, DamageIsAFailureWithWords) {
  const std::pair<std::vector<Bytes>, const char*> cases[] = {
      {{stsc_, stco_}, "stsz box not found"},
      {{stsz_, stco_}, "stsc box not found"},
      {{stsz_, stsc_}, "Neither stco nor co64 found"},
      {{box("stsz"), stsc_, stco_}, "Cannot read stsz"},
      {{box("stsz", {Bytes(3)}), stsc_, stco_}, "too short for version and flags"},
      {{stsz_, fullBox("stsc", {2, 2, 1, 1, 1, 1, 1}), stco_}, "out of order"},
      {{stsz_, fullBox("stsc", {1, 4, 1, 1}), stco_}, "out of order"},
      {{stsz_, stsc_, fullBox("stco", {3, 100, 500})}, "the data end"},
      {{stsz_, stsc_, fullBox("co64", {UINT32_MAX, 0, 1})}, "the data end"},
      {{stsz_, fullBox("stsc", {0}), stco_}, "Could not compute offset for sample 0"},
      {{stsz_, fullBox("stsc", {3, 1, 1, 1, 3, 1, 1, 2, 1, 1}), stco_}, "out of order"},
      {{stsz_, stsc_, fullBox("co64", {2, UINT32_MAX, UINT32_MAX, 0, 1})}, "Sample offset out of range"},
  };
  for (const auto& [boxes, words] : cases) {
    EXPECT_THAT(failureOf([&, &boxes = boxes] { parse(boxes).allSamples(); }), testing::HasSubstr(words));
  }
  // A box that claims more than the file holds takes no memory for it.
  EXPECT_THROW(parse({stsc_, stco_, boxClaiming(UINT32_MAX, "stsz", {values({0, 0, 0x3F000000, 1})})}), ByteArrayError);
  // Samples of one size take no room; a list of all of them has a limit.
  auto many = parse(
      {fullBox("stsz", {1, 20'000'000}), fullBox("stsc", {1, 1, 20'000'000, 1}), fullBox("stco", {1, 80})}, 20'000'000);
  EXPECT_EQ(many.sampleInfo(19'999'999).fileOffset, 80u + 19'999'999);
  EXPECT_EQ(failureOf([&] { many.allSamples(); }), "stsz promises 20000000 samples, of which 16777216 can be listed");
}

TEST_F(SampleTable, RebuiltOffsetsHaveRoomToMove) {
  auto table = parse({stsz_, stsc_, fullBox("stco", {2, 100, UINT32_MAX - 1000})});
  const Bytes stco = fullBox("stco", {3, 100, 110, UINT32_MAX - 1000});
  const Bytes co64 = fullBox("co64", {3, 0, 100, 0, 110, 0, UINT32_MAX - 1000});
  EXPECT_EQ(table.rebuildChunkOffsetBox(), stco);
  EXPECT_EQ(table.rebuildChunkOffsetBox({.delta = 1000}), stco);
  EXPECT_EQ(table.rebuildChunkOffsetBox({.delta = 1001}), co64);
  EXPECT_EQ(table.rebuildChunkOffsetBox({.delta = 1001, .movesFrom = UINT32_MAX - 1000}), co64);
  EXPECT_EQ(table.rebuildChunkOffsetBox({.delta = 1001, .movesFrom = UINT32_MAX - 999}), stco);
  EXPECT_EQ(table.rebuildChunkOffsetBox({.delta = -200}), stco);
  auto empty = parse({fullBox("stsz", {0, 0}), stsc_, stco_});
  EXPECT_THROW(empty.rebuildStscBox({}), Error);
  EXPECT_THROW(empty.rebuildChunkOffsetBox(), Error);
  EXPECT_EQ(buildChunkOffsetBox(std::vector<uint64_t>{1, 0x100000000}), fullBox("co64", {2, 0, 1, 1, 0}));
}

TEST_F(SampleTable, TellsTheDescriptionOfASample) {
  // The first row's number shifts nothing; a chunk without samples and a row without chunks describe nothing.
  Bytes stsc = fullBox("stsc", {4, 2, 0, 9, 3, 2, 7, 4, 9, 8, 4, 1, 4});
  auto table = parse({fullBox("stsz", {10, 5}), stsc, fullBox("stco", {4, 0, 100, 200, 300})});
  const std::optional<uint32_t> descriptions[] = {7, 7, 4, std::nullopt, std::nullopt};  // the last behind all chunks
  for (int64_t sample = 0; sample < 5; ++sample) {
    EXPECT_EQ(table.sampleDescriptionIndex(sample), descriptions[sample]) << sample;
  }
}

}  // namespace
}  // namespace tarn
