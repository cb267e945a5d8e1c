#include "Fuzzing.h"
#include "mp4/MP4SampleTableParser.h"
#include "platform/Error.h"

using namespace tarn;

/// The input is the contents of an `stbl`.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Movie movie(ByteView(data, size));
  auto file = movie.files.open(movie.path, OpenMode::reading);
  MP4SampleTableParser table;
  try {
    table.parseSampleTable(*file, {.size = size + 8, .type = "stbl", .offset = 0, .headerSize = 0});
    const auto count = static_cast<int64_t>(table.sampleSizes().size());
    const auto samples = table.allSamples();
    fuzz::require(static_cast<int64_t>(samples.size()) == count);
    if (count > 0) fuzz::require(table.sampleInfo(count - 1) == samples.back());
    fuzz::require(table.syncSamplesOnly().size() <= samples.size());
    table.usedSampleDescriptionIndices();
    table.sampleDescriptionIndex(count / 2);
    const SampleDescriptionSegment whole{0, count - 1, 1};
    table.rebuildStscBox({&whole, 1});
    table.rebuildChunkOffsetBox({.delta = 100, .movesFrom = 0});
  } catch (const Error&) {
    // A table that contradicts itself is refused.
  }
  return 0;
}
