#include <benchmark/benchmark.h>

#include <filesystem>

#include "media/AVAsset.h"
#include "platform/host/PosixFileManager.h"
#include "support/BoxBuilder.h"
#include "support/SyntheticMovie.h"

namespace tarn {
namespace {

constexpr uint32_t pictures = 650'000;
constexpr uint32_t packets = 500'000;

/// Three hours: pictures of varying length with B-frames, a row for each in both tables, and AAC with an edit.
Bytes longMovie() {
  test::SyntheticTrack video{.handler = "vide",
                             .timescale = 90'000,
                             .sampleEntry = test::visualSampleEntry("avc1"),
                             .edits = {{10'800'000, 3000}},
                             .samples = pictures};
  for (uint32_t i = 0; i < pictures; ++i) {
    video.stts.emplace_back(1, 1495 + i % 2);
    video.ctts.emplace_back(1, i % 4 == 0 ? 6000 : 3000);
  }
  test::SyntheticTrack audio{
      .stts = {{packets, 1024}}, .edits = {{10'660'000, 1024}}, .samples = packets, .samplesPerChunk = 24};
  return test::syntheticMovie({video, audio});
}

/// What one pass of an analysis over both tracks costs, opening included.
void walkBothTracks(benchmark::State& state) {
  PosixFileManager files(std::filesystem::temp_directory_path());
  Path path = std::filesystem::current_path() / (makeUUID() + ".mp4");
  writeFileAtomically(files, path, longMovie());
  AVAsset asset(files, path);
  for ([[maybe_unused]] auto _ : state) {
    int64_t walked = 0;
    for (AVMediaType type : {AVMediaType::video, AVMediaType::audio}) {
      auto source = asset.compressedSamples(asset.tracks(type).at(0));
      while (auto buffer = source->next()) walked += buffer->numSamples;
    }
    if (walked < pictures - 10 + packets - 500) state.SkipWithError("samples are missing");
  }
  files.removeItem(path);
}
BENCHMARK(walkBothTracks)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace tarn
