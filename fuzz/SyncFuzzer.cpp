#include "Fuzzing.h"
#include "sync/MP4AVSyncFixer.h"
#include "sync/MP4EditListStripper.h"

/// The first byte chooses whether the audio counts as replaced, the rest is a movie. A fix and a stripped copy keep
/// what could be read readable.
void tarn::fuzz::run(Input input) {
  const bool isReplaced = (input.number<uint8_t>() & 1) != 0;
  Movie movie(input.rest());
  const bool hadVideo = movie.isReadable(MP4TrackType::video);
  const bool hadAudio = movie.isReadable(MP4TrackType::audio);

  const Path stripped = movie.path.parent_path() / "stripped.mp4";
  movie.survives([&] {
    MP4EditListStripper::stripAudioEditList(movie.files, movie.path, stripped);
    movie.files.removeItem(stripped);
  });

  std::optional<OriginalSyncInfo> original;
  movie.survives([&] { original = MP4AVSyncFixer::readOriginalSyncInfo(movie.files, movie.path); });
  const bool isFixed =
      movie.survives([&] { MP4AVSyncFixer::fix(movie.files, movie.path, nullptr, nullptr, original, isReplaced); });
  if (!isFixed) return;
  require(movie.isReadable(MP4TrackType::video) == hadVideo);
  require(movie.isReadable(MP4TrackType::audio) == hadAudio);
}
