#include "Fuzzing.h"
#include "kind/Kind.h"

namespace tarn::fuzz {

/// The input is any file. It is something, and what no player shows is refused in a sentence that names it.
void run(Input input) {
  Movie movie(input.rest());
  const Kind kind = kindOf(movie.files, movie.path);
  require(!kind.words.empty());
  const auto why = whyNoPlayerShows(movie.files, movie.path, "it");
  require(why.has_value() == !kind.isMedia());
  require(!why || why->starts_with("it is "));
}

}  // namespace tarn::fuzz
