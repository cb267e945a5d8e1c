#include "Fuzzing.h"
#include "audio/MP4AudioTrackReplacer.h"
#include "platform/TempFile.h"

/// Two movies, the first as long as the first three bytes say: the pictures of the one, the sound of the other.
void tarn::fuzz::run(Input input) {
  Movie movie(input.take(input.number<size_t>(3)));
  const ByteView rest = input.rest();
  const auto replace = [&] {
    const Path sound = movie.path.parent_path() / "sound.m4a", result = movie.path.parent_path() / "result.mp4";
    writeFileAtomically(movie.files, sound, rest);
    const TempFile soundFile(movie.files, sound), resultFile(movie.files, result);
    MP4AudioTrackReplacer::replaceAudioTrack(movie.files, movie.path, sound, result);
    movie.files.replaceItem(movie.path, result);
  };
  movie.survives(replace, {MP4TrackType::video});
}
