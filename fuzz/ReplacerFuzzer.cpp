#include "Fuzzing.h"
#include "audio/MP4AudioTrackReplacer.h"
#include "platform/TempFile.h"

/// Two movies, the first as long as the first three bytes say: the pictures of the one, the sound of the other.
void tarn::fuzz::run(Input input) {
  const auto length = input.number<size_t>(3);
  Movie movie(input.take(length));
  const Path sound = movie.path.parent_path() / "sound.m4a", result = movie.path.parent_path() / "result.mp4";
  const ByteView rest = input.rest();
  const bool hadPictures = movie.isReadable(MP4TrackType::video);
  const bool isReplaced = movie.survives([&] {
    writeFileAtomically(movie.files, sound, rest);
    const TempFile soundFile(movie.files, sound), resultFile(movie.files, result);
    MP4AudioTrackReplacer::replaceAudioTrack(movie.files, movie.path, sound, result);
    movie.files.replaceItem(movie.path, result);
  });
  require(!isReplaced || !hadPictures || movie.isReadable(MP4TrackType::video));
}
