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

/// The input is a movie. What the step makes of it is a plain movie whose presentation can be read, and which a second
/// step leaves as it is.
void run(Input input) {
  const ByteView content = input.rest();
  Movie movie(content);
  if (!movie.survives([&] { joinFragments(movie); })) return;
  const Bytes once = movie.content();
  if (std::ranges::equal(once, content)) return;
  require(!isFragmented(movie.files, movie.path));
  Presentation::read(movie.files, movie.path);
  joinFragments(movie);
  require(movie.content() == once);
}

}  // namespace tarn::fuzz
