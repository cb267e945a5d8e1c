#include <sys/resource.h>

#include <cstdio>
#include <exception>
#include <string_view>

#include "platform/Log.h"
#include "platform/host/PosixFileManager.h"
#include "remux/MP4Remuxer.h"

/// Repairs one HEVC file in place and prints the seconds that it took, those of the copy within them, and the peak of
/// memory in MiB.
int main(int count, char** arguments) {
  if (count != 2) {
    std::fprintf(stderr, "usage: %s FILE\n", arguments[0]);
    return 2;
  }
  try {
    tarn::setLogSink([](std::string_view) {});
    tarn::Path file = std::filesystem::absolute(arguments[1]);
    tarn::PosixFileManager files(file.parent_path());
    std::optional<tarn::RemuxTimings> timings;
    tarn::TimingHelper timer;
    tarn::MP4Remuxer::remuxHEVCWithParameterExtraction(files, file, nullptr, timings);
    double seconds = timer.stop();
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    std::printf("%.3f %.3f %.1f\n", seconds, timings->writeAtomicMP4, static_cast<double>(usage.ru_maxrss) / 1024);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
