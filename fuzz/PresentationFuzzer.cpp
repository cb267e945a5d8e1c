#include "Fuzzing.h"
#include "presentation/Harms.h"
#include "presentation/PresentationChange.h"

/// The first byte chooses the remade track, the next three say how long the first of two movies is. Each harms nothing
/// of itself, and the two can be compared in whatever shape they are.
void tarn::fuzz::run(Input input) {
  const AnnouncedChange announced{.remadeTrack = input.number<uint8_t>(), .comparesBytes = false};
  const auto size = input.number<uint32_t>(3);
  Movie first(input.take(size));
  Movie second(input.rest());
  finishes([&] {
    isFragmented(first.files, first.path);
    const auto before = Presentation::read(first.files, first.path);
    for (const TrackPresentation& track : before.tracks()) {
      require(track.timescale > 0 && track.samplesClipped <= track.samplesShown);
      require(track.shownFrom.has_value() == (track.samplesShown > 0));
      require(!track.shownFrom || *track.shownFrom <= *track.shownTo);
    }
    const auto itself = comparePresentations(before, before, std::nullopt, {});
    require(harmsOf(itself, before, before).empty());
    const auto after = Presentation::read(second.files, second.path);
    harmsOf(comparePresentations(before, after, std::nullopt, announced), before, after, announced);
    harmsOf(comparePresentations(after, before, {}, announced), after, before, announced);
  });
}
