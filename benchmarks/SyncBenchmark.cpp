#include <benchmark/benchmark.h>

#include <filesystem>
#include <random>
#include <stdexcept>

#include "platform/Log.h"
#include "platform/host/PosixFileManager.h"
#include "sync/MP4AVSyncFixer.h"
#include "sync/SyncMovie.h"

namespace tarn::test {
namespace {

constexpr uint64_t gibibyte = uint64_t{1} << 30;

/// A directory below the current one, and no log.
struct Workplace {
  Workplace() {
    setLogSink([](std::string_view) {});
    files.createDirectory(directory);
  }
  ~Workplace() { std::filesystem::remove_all(directory); }

  Path directory = std::filesystem::current_path() / "tarn-sync-benchmark";
  PosixFileManager files{directory};
};

SyncMovie movie(std::vector<Bytes> sampleTable = {}) {
  return {.tracks = {{"vide", 90000, 900000, {}, std::move(sampleTable)}, {"soun", 48000, 480000}}};
}

/// A movie with its `moov` ahead of 1 GiB of media that no file system can make smaller.
Path bigMovie(Workplace& place) {
  Path path = place.directory / "big.mp4";
  auto file = place.files.open(path, OpenMode::creating);
  file->write(movie().moov());
  file->write(longBoxClaiming(gibibyte + 16, "mdat"));
  std::mt19937_64 random;
  std::vector<uint64_t> block(1 << 17);
  for (uint64_t written = 0; written < gibibyte; written += block.size() * sizeof(uint64_t)) {
    for (uint64_t& word : block) word = random();
    file->write({reinterpret_cast<const uint8_t*>(block.data()), block.size() * sizeof(uint64_t)});
  }
  file->synchronize();
  return path;
}

void fixOneGibibyte(benchmark::State& state) {
  Workplace place;
  Path path = bigMovie(place);
  OriginalSyncInfo original;
  original.syncOffsetSeconds = 0.3;
  original.movieTimescale = 1000;
  for ([[maybe_unused]] auto _ : state) {
    if (!MP4AVSyncFixer::fix(place.files, path, nullptr, nullptr, original, false)) state.SkipWithError("not fixed");
  }
}
BENCHMARK(fixOneGibibyte)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1)->Repetitions(5);

void copyAndFlushOneGibibyte(benchmark::State& state) {
  Workplace place;
  Path path = bigMovie(place);
  const std::string copy = path.string() + ".copy";
  const std::string command = "cp --reflink=never --sparse=never " + path.string() + " " + copy + " && sync " + copy;
  for ([[maybe_unused]] auto _ : state) {
    if (std::system(command.c_str()) != 0) state.SkipWithError("not copied");
    state.PauseTiming();
    std::filesystem::remove(copy);
    state.ResumeTiming();
  }
}
BENCHMARK(copyAndFlushOneGibibyte)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1)->Repetitions(5);

void answerForATenMebibyteMoov(benchmark::State& state) {
  Workplace place;
  const uint32_t samples = (10 << 20) / 16;
  Path path = place.directory / "answer.mp4";
  Bytes rows(size_t{samples} * 8);  // composition offsets of 0, which are read, and sizes, which are not
  Bytes moov =
      movie({box("ctts", {values({0, samples}), rows}), box("stsz", {values({0, 0, 2 * samples}), rows})}).moov();
  writeFileAtomically(place.files, path, joined({moov, box("mdat")}));
  for ([[maybe_unused]] auto _ : state) {
    if (MP4AVSyncFixer::fix(place.files, path, nullptr, nullptr, std::nullopt, false)) state.SkipWithError("fixed");
  }
  state.counters["moov MiB"] = static_cast<double>(moov.size()) / (1 << 20);
}
BENCHMARK(answerForATenMebibyteMoov)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace tarn::test
