#include <algorithm>

#include "Fuzzing.h"
#include "fragments/FragmentsStep.h"
#include "presentation/Presentation.h"

namespace tarn::fuzz {
namespace {

void joinFragments(Movie& movie) {
  const SystemClock clock;
  NamesInTheMaking names;
  RunListener listener;
  ProcessingRun run(movie.files, clock, names, listener, {.fileURL = movie.path},
                    std::make_shared<CancellationToken>());
  FragmentsStep().run(run);
}

}  // namespace

/// The input is a movie. What the step makes of one in fragments is a plain one whose presentation can be read. A
/// second step leaves as it is what the first one made.
void run(Input input) {
  const ByteView content = input.rest();
  Movie movie(content);
  const bool isInFragments = isFragmented(movie.files, movie.path);
  if (!movie.survives([&] { joinFragments(movie); })) return;
  const Bytes once = movie.content();
  if (std::ranges::equal(once, content)) return;
  if (isInFragments) Presentation::read(movie.files, movie.path);
  joinFragments(movie);
  require(movie.content() == once);
}

}  // namespace tarn::fuzz
