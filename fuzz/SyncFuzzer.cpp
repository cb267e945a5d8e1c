#include "Fuzzing.h"
#include "sync/MP4AVSyncFixer.h"
#include "sync/MP4EditListStripper.h"

using namespace tarn;

/// The first byte chooses whether the audio counts as replaced, the rest is a movie. A fix and a stripped copy keep
/// what could be read readable.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input input(data, size);
  const bool isReplaced = (input.byte() & 1) != 0;
  fuzz::Movie movie(input.rest());
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
  if (isFixed) {
    fuzz::require(movie.isReadable(MP4TrackType::video) == hadVideo);
    fuzz::require(movie.isReadable(MP4TrackType::audio) == hadAudio);
  }
  return 0;
}
