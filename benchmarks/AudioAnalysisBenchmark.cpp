#include <benchmark/benchmark.h>

#include <filesystem>

#include "audio/AudioRepairDecision.h"
#include "platform/Log.h"
#include "platform/host/PosixFileManager.h"
#include "support/BoxBuilder.h"
#include "support/SyntheticMovie.h"

namespace tarn {
namespace {

/// So many hours of AAC at 48 kHz and of pictures of varying length with B-frames, a row for each in both tables.
Bytes longMovie(uint32_t hours, bool hasHoles) {
  const uint32_t packets = hours * 168'750, pictures = hours * 216'000;
  test::SyntheticTrack video{
      .handler = "vide", .timescale = 90'000, .sampleEntry = test::visualSampleEntry("avc1"), .samples = pictures};
  for (uint32_t i = 0; i < pictures; ++i) {
    video.stts.emplace_back(1, 1499 + i % 3);
    video.ctts.emplace_back(1, i % 4 == 0 ? 6000 : 3000);
  }
  video.mediaDuration = uint64_t{pictures} * 1500;
  test::SyntheticTrack audio{.samples = packets, .samplesPerChunk = 24, .mediaDuration = uint64_t{packets} * 1024};
  if (!hasHoles) audio.stts = {{packets, 1024}};
  for (uint32_t i = 0; hasHoles && i < packets; i += 10) {
    audio.stts.insert(audio.stts.end(), {{9, 1024}, {1, 1024 + 4800}});
  }
  return test::syntheticMovie({video, audio});
}

/// The whole decision: the analysis, and where the sound alone looks whole the scan across both tracks.
void decide(benchmark::State& state) {
  setLogSink([](std::string_view) {});
  PosixFileManager files(std::filesystem::temp_directory_path());
  const Path path = std::filesystem::current_path() / (makeUUID() + ".mp4");
  const bool hasHoles = state.range(1) != 0;
  writeFileAtomically(files, path, longMovie(static_cast<uint32_t>(state.range(0)), hasHoles));
  for ([[maybe_unused]] auto _ : state) {
    const AudioFindings findings = decideAudioRepair(files, path);
    if (findings.scan.has_value() == hasHoles) state.SkipWithError("not the decision that was meant");
  }
  files.removeItem(path);
}
BENCHMARK(decide)->ArgNames({"hours", "holes"})->ArgsProduct({{3, 6, 12}, {0, 1}})->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace tarn
