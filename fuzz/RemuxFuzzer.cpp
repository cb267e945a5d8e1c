#include "Fuzzing.h"
#include "remux/MP4Remuxer.h"

/// The input is a movie. What could be read can be read behind a finished repair, and a second repair changes nothing.
void tarn::fuzz::run(Input input) {
  Movie movie(input.rest());
  std::optional<RemuxTimings> timings;
  const auto remux = [&](bool isHEVC) {
    return movie.survives([&] {
      if (isHEVC) {
        MP4Remuxer::remuxHEVCWithParameterExtraction(movie.files, movie.path, nullptr, timings);
      } else {
        MP4Remuxer::remuxAVCWithParameterExtraction(movie.files, movie.path, "avc3", nullptr, timings);
      }
    });
  };
  const bool wasReadable = movie.isReadable(MP4TrackType::video);
  movie.survives([&] { MP4Remuxer::detectHEVCTag(movie.files, movie.path); });
  for (bool isHEVC : {true, false}) {
    if (!remux(isHEVC)) continue;
    require(!wasReadable || movie.isReadable(MP4TrackType::video));
    const Bytes once = movie.content();
    require(remux(isHEVC) && movie.content() == once);
  }
}
