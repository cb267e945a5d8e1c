#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <future>
#include <random>

#include "media/AVAssetWriter.h"
#include "platform/host/PosixFileManager.h"

namespace tarn {
namespace {

constexpr size_t frames = size_t{48000} * 20;

/// 20 seconds of stereo: tones over noise, louder and softer.
CMSampleBuffer music() {
  std::mt19937 random;
  std::normal_distribution<double> noise(0, 400);
  std::vector<int16_t> samples(frames * 2);
  for (size_t i = 0; i < samples.size(); ++i) {
    const size_t frame = i / 2;
    const double time = static_cast<double>(frame) / 48000;
    const double tones = std::sin(time * 1382) + std::sin(time * 2073) + std::sin(time * 8287);
    samples[i] = static_cast<int16_t>(4000 * tones * std::sin(time) + noise(random));
  }
  Bytes bytes(samples.size() * sizeof(int16_t));
  std::memcpy(bytes.data(), samples.data(), bytes.size());
  return {.numSamples = static_cast<int64_t>(frames),
          .formatDescription = CMAudioFormatDescriptionCreate(interleavedPCM16(48000, 2)),
          .dataBuffer = std::make_shared<CMBlockBuffer>(std::move(bytes))};
}

/// So many minutes of stereo into an M4A, flushed, on so many workers.
void write(benchmark::State& state) {
  const Path path = std::filesystem::current_path() / "tarn-asset-writer-benchmark.m4a";
  PosixFileManager files{path.parent_path()};
  const CMSampleBuffer buffer = music();
  for ([[maybe_unused]] auto _ : state) {
    removeIfExists(files, path);
    AVAssetWriter writer(files, path, AVFileType::appleM4A, static_cast<unsigned>(state.range(1)));
    auto input = std::make_shared<AVAssetWriterInput>(AACOutputSettings());
    writer.addInput(input);
    writer.startWriting();
    for (int64_t i = 0; i < state.range(0) * 3; ++i) input->appendSampleBuffer(buffer);
    input->markAsFinished();
    std::promise<void> done;
    writer.finishWritingWithCompletionHandler([&] { done.set_value(); });
    done.get_future().wait();
    if (writer.status() != AVAssetWriterStatus::completed) state.SkipWithError("the writer failed");
  }
  removeIfExists(files, path);
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  state.counters["peak MiB"] = static_cast<double>(usage.ru_maxrss) / 1024;
}
BENCHMARK(write)
    ->ArgNames({"minutes", "workers"})
    ->Args({30, 1})
    ->Args({30, 2})
    ->Args({180, 2})
    ->Unit(benchmark::kSecond)
    ->Iterations(1)
    ->MeasureProcessCPUTime()
    ->UseRealTime();

}  // namespace
}  // namespace tarn
