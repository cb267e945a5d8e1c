#include <benchmark/benchmark.h>

#include <filesystem>

#include "mp4/DataExtensions.h"
#include "mp4/MP4SampleTableParser.h"
#include "mp4/SampleTableBuilders.h"
#include "platform/Log.h"
#include "platform/host/PosixFileManager.h"

namespace tarn {
namespace {

/// An `stbl` of so many samples of different sizes in chunks of 10, a sync sample in every 25.
Bytes sampleTable(uint32_t samples) {
  std::vector<uint32_t> sizes(samples);
  for (uint32_t i = 0; i < samples; ++i) sizes[i] = 1000 + i % 977;
  std::vector<uint64_t> offsets;
  for (uint64_t i = 0, at = 48; i < samples; i += 10, at += 15'000) offsets.push_back(at);
  SampleToChunkEntry row{.firstChunk = 1, .samplesPerChunk = 10, .sampleDescriptionIndex = 1};

  Bytes stss;
  uint32_t syncSamples = (samples + 24) / 25;
  ByteWriter writer(stss);
  writer.uint32(16 + 4 * syncSamples).text("stss").uint32(0).uint32(syncSamples);
  for (uint32_t i = 0; i < syncSamples; ++i) writer.uint32(i * 25 + 1);

  Bytes contents;
  for (const Bytes& box : {buildStszBox(sizes), buildStscBox({&row, 1}), buildChunkOffsetBox(offsets), stss}) {
    ByteWriter(contents).bytes(box);
  }
  Bytes stbl;
  ByteWriter(stbl).uint32(static_cast<uint32_t>(8 + contents.size())).text("stbl").bytes(contents);
  return stbl;
}

void parseAndListAll(benchmark::State& state) {
  setLogSink([](std::string_view) {});
  PosixFileManager files(std::filesystem::temp_directory_path());
  Path path = std::filesystem::temp_directory_path() / (makeUUID() + ".stbl");
  Bytes stbl = sampleTable(static_cast<uint32_t>(state.range(0)));
  writeFileAtomically(files, path, stbl);
  auto file = files.open(path, OpenMode::reading);
  for ([[maybe_unused]] auto _ : state) {
    MP4SampleTableParser table;
    table.parseSampleTable(*file, {.size = stbl.size(), .type = "stbl"});
    auto samples = table.allSamples();
    benchmark::DoNotOptimize(samples.data());
  }
  state.SetComplexityN(state.range(0));
  files.removeItem(path);
}
BENCHMARK(parseAndListAll)
    ->RangeMultiplier(10)
    ->Range(10'000, 10'000'000)
    ->Unit(benchmark::kMillisecond)
    ->Complexity(benchmark::oN);

}  // namespace
}  // namespace tarn
