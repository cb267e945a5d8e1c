#include "Fuzzing.h"
#include "mp4/MP4SampleTableParser.h"

/// The input is the contents of an `stbl`.
void tarn::fuzz::run(Input input) {
  const ByteView contents = input.rest();
  Movie movie(contents);
  auto file = movie.open();
  MP4SampleTableParser table;
  finishes([&] {
    table.parseSampleTable(*file, {.offset = 0, .size = contents.size() + 8, .type = "stbl", .headerSize = 0});
    const auto count = int64_t{table.sampleCount()};
    const auto samples = table.allSamples();
    require(static_cast<int64_t>(samples.size()) == count);
    if (count > 0) require(table.sampleInfo(count - 1) == samples.back());
    require(table.syncSamplesOnly().size() <= samples.size());
    table.usedSampleDescriptionIndices();
    table.sampleDescriptionIndex(count / 2);
    const SampleDescriptionSegment whole{0, count - 1, 1};
    table.rebuildStscBox({&whole, 1});
    table.rebuildChunkOffsetBox({.delta = 100, .movesFrom = 0});
  });  // a table that contradicts itself is refused
}
