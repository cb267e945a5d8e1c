#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string_view>

#include "audio/fastpath/FastPathAudioRepair.h"
#include "platform/Log.h"
#include "platform/host/PosixFileManager.h"

namespace {

tarn::AudioConfigCheck stereo(int rate) {
  tarn::AudioConfigCheck config;
  config.sampleRate = config.audioTimescale = rate;
  config.sampleDelta = 1024;
  return config;
}

}  // namespace

/// Takes the fast path with one file, whose sound is AAC-LC stereo of this rate in Hz, and prints the seconds that it
/// took and the peak of memory in MiB.
int main(int count, char** arguments) {
  if (count != 3) {
    std::fprintf(stderr, "usage: %s FILE RATE\n", arguments[0]);
    return 2;
  }
  try {
    tarn::setLogSink([](std::string_view) {});
    tarn::ProcessingState state;
    state.fileURL = std::filesystem::absolute(arguments[1]);
    tarn::PosixFileManager files(state.fileURL.parent_path());
    tarn::SystemClock clock;
    tarn::NamesInTheMaking names;
    tarn::RunListener listener;
    tarn::ProcessingRun run(files, clock, names, listener, state, std::make_shared<tarn::CancellationToken>());
    tarn::TimingHelper timer;
    tarn::performFastPathAudioRepair(run, {}, stereo(std::atoi(arguments[2])));
    double seconds = timer.stop();
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    std::printf("%.3f %.1f\n", seconds, static_cast<double>(usage.ru_maxrss) / 1024);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
