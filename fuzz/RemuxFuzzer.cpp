#include "Fuzzing.h"
#include "remux/MP4Remuxer.h"

/// The input is a movie. What could be read can be read behind a finished repair, and a second repair changes nothing.
void tarn::fuzz::run(Input input) {
  Movie movie(input.rest());
  std::optional<RemuxTimings> timings;
  const auto remux = [&](bool isHEVC) {
    const auto repair = [&] {
      isHEVC ? MP4Remuxer::remuxHEVCWithParameterExtraction(movie.files, movie.path, nullptr, timings)
             : MP4Remuxer::remuxAVCWithParameterExtraction(movie.files, movie.path, "avc3", nullptr, timings);
    };
    return movie.survives(repair, {MP4TrackType::video});
  };
  movie.survives([&] { MP4Remuxer::detectHEVCTag(movie.files, movie.path); });
  for (bool isHEVC : {true, false}) {
    if (!remux(isHEVC)) continue;
    const Bytes once = movie.content();
    require(remux(isHEVC) && movie.content() == once);
  }
}
