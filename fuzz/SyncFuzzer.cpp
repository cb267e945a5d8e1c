#include "Fuzzing.h"
#include "sync/MP4AVSyncFixer.h"
#include "sync/MP4EditListStripper.h"

/// The first byte chooses whether the audio counts as replaced, the rest is a movie. A fix keeps what could be read
/// readable, and so does a stripped copy.
void tarn::fuzz::run(Input input) {
  const auto both = {MP4TrackType::video, MP4TrackType::audio};
  const bool isReplaced = (input.number<uint8_t>() & 1) != 0;
  Movie movie(input.rest());
  Movie copy(movie.content());
  copy.survives(
      [&] {
        const Path stripped = copy.path.parent_path() / "stripped.mp4";
        MP4EditListStripper::stripAudioEditList(copy.files, copy.path, stripped);
        copy.files.replaceItem(copy.path, stripped);
      },
      both);

  Movie ordered(movie.content());
  ordered.survives(
      [&] {
        const SyncFixOrder order = orderSyncFix(Presentation::read(ordered.files, ordered.path));
        if (!order.isNeeded()) return;
        MP4AVSyncFixer::fix(ordered.files, ordered.path, nullptr, nullptr, std::nullopt, false, nullptr, &order);
      },
      both);

  std::optional<OriginalSyncInfo> original;
  movie.survives([&] { original = MP4AVSyncFixer::readOriginalSyncInfo(movie.files, movie.path); });
  movie.survives([&] { MP4AVSyncFixer::fix(movie.files, movie.path, nullptr, nullptr, original, isReplaced); }, both);
}
